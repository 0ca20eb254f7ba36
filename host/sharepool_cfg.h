// Share pool groups: which the platform has, which an application gets, and with what right.
//
// docs/config-sharepool.md describes the files. The object is filled once on the boot thread,
// before the first start, and only read afterwards: no lock.
#ifndef HOST_SHAREPOOL_CFG_H
#define HOST_SHAREPOOL_CFG_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "app/manifest.h"
#include "base/environment.h"
#include "platform/manifest/kvs_type_yaml.h"

namespace ProcMgr {

inline constexpr const char* kSharepoolDir = "/etc/sharepool";
inline constexpr const char* kDefaultSharepoolGroup = "DEFAULT_MEM_GROUP";

struct SharepoolGroupCfg {
  std::string groupName;
  std::uint64_t memSize = 0;  // KB
};

// Names in the order of their first appearance, none of them twice.
class NameList {
 public:
  void Add(std::string name);
  [[nodiscard]] bool Holds(const std::string& name) const { return known_.contains(name); }
  [[nodiscard]] const std::vector<std::string>& InOrder() const { return names_; }

 private:
  std::vector<std::string> names_;
  std::unordered_set<std::string> known_;
};

class SharepoolCfg {
 public:
  static SharepoolCfg& Instance();

  // Reads every regular file of the directory, adds the default group, and has the platform create
  // all groups. No failure stops the boot. Boot thread.
  void InitSharepool(const std::string& directory = kSharepoolDir);

  // The groups that an application gets: every group with "admin" for an admin application, else
  // the manifest's, else the default group with "alloc". Any thread.
  [[nodiscard]] std::vector<SharepoolGroupsInfo> GetAppSharepoolGroups(
      const std::string& appName, const std::vector<SharepoolGroupsInfo>& manifestGroups) const;

  // Has the platform admit the process to each of the groups that is legal. Failures are logged and
  // don't touch the process. Any thread.
  void AddSharepoolGroup(const std::string& appName, pid_t pid,
                         const std::vector<SharepoolGroupsInfo>& groups) const;

  // Sets the variables that tell an application its groups. Failures append their reasons to `err`.
  // Any thread.
  void SetSharepoolGroupEnv(const std::string& appName,
                            const std::vector<SharepoolGroupsInfo>& manifestGroups,
                            Environment& env, std::string& err) const;

  // True if the group is known and the permission one of the four words or empty; else the reason
  // is appended to `err`. Any thread.
  [[nodiscard]] bool CheckSharepoolGroupCfg(const SharepoolGroupsInfo& group,
                                            std::string& err) const;

  // The groups in the order of their first appearance, the default group last.
  [[nodiscard]] const std::vector<SharepoolGroupCfg>& Groups() const { return groups_; }
  [[nodiscard]] const std::vector<std::string>& AdminProLists() const {
    return adminProLists_.InOrder();
  }
  // The binary paths of self-reported processes that get all groups.
  [[nodiscard]] const std::vector<std::string>& WhiteLists() const { return whiteLists_.InOrder(); }
  // The names of Groups(), in its order.
  [[nodiscard]] const std::vector<std::string>& GroupNames() const { return groupNames_; }

  // The steps of InitSharepool.
  void LoadSharepoolCfg(const std::string& directory);
  void LoadCfgFile(const std::string& path);
  void FinishSharepoolCfg();
  void CreateSharepoolGroup() const;

 private:
  void LoadSharepoolGroupCfg(const KvsTypeYaml& root, const std::string& path);
  void LoadAdminProLists(const KvsTypeYaml& root, const std::string& path);
  void LoadWhiteLists(const KvsTypeYaml& root, const std::string& path);

  std::vector<SharepoolGroupCfg> groups_;
  std::unordered_set<std::string> knownGroups_;  // The names in groups_.
  NameList adminProLists_;
  NameList whiteLists_;
  std::vector<std::string> groupNames_;
};

}  // namespace ProcMgr

#endif  // HOST_SHAREPOOL_CFG_H
