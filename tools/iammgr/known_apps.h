// What the service files tell about the applications of the platform: which are base services, and
// which base service a general application belongs to.
#ifndef TOOLS_IAMMGR_KNOWN_APPS_H
#define TOOLS_IAMMGR_KNOWN_APPS_H

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Iammgr {

struct AppKind {
  std::string kind;   // "manager", "base", "general" or "self-reported".
  std::string owner;  // The base service whose start-up entry file has it; empty if not known.
};

// Not changed once it is made, so any thread may ask.
class KnownApps {
 public:
  // Reads the manager's base-service file and the start-up entry files that it names. What can't be
  // read is logged and not known.
  explicit KnownApps(const std::string& baseFile);

  // `pid` tells the general applications that are in no file, such as those that a load's match
  // data selects, from processes that the manager didn't start: it is the parent of the former.
  [[nodiscard]] AppKind Find(const std::string& name, pid_t pid, pid_t manager) const;

 private:
  std::set<std::string> baseServices_;
  std::map<std::string, std::string> owners_;  // Of general applications, by their fixed names.
  std::vector<std::pair<std::string, std::string>> patterns_;  // Pattern and owner.
};

}  // namespace Iammgr

#endif  // TOOLS_IAMMGR_KNOWN_APPS_H
