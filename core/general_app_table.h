// What is known of general applications by name.
//
// Every application with a fixed name that was ever asked for has one record here, with or without
// a process, for the life of the table. It belongs to whoever asked first. An application whose
// name fits a pattern only has a record as long as it has a process (core/app_lists.h).
//
// All calls from any thread. The records have the lock of their list, generalAppMutex_.
#ifndef CORE_GENERAL_APP_TABLE_H
#define CORE_GENERAL_APP_TABLE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/app_lists.h"
#include "core/startup_cfg.h"

namespace ProcMgr {

class GeneralAppTable {
 public:
  using Records = std::unordered_map<std::string, GeneralAppPtr>;

  // `startupCfg` has the manifests of what may be asked for, and must outlive the table.
  explicit GeneralAppTable(StartupCfg& startupCfg) : startupCfg_(startupCfg) {}

  // The record of that name; a new one, for `owner`, if there is none and a manifest stands for the
  // name. Null, with a log line, if none does.
  [[nodiscard]] GeneralAppPtr GetGeneralApp(const std::string& name, const std::string& owner)
      REQUIRES(generalAppMutex_);

  // The records of this table, in no particular order.
  [[nodiscard]] const Records& All() const REQUIRES(generalAppMutex_) { return allGeneralAppMap_; }

  // The program whose digest a start of that name would have to wait for: its own, or the one that
  // the request's dynamic parameters name. Empty if every digest is at hand.
  [[nodiscard]] std::string ProgramToCheck(const std::string& name,
                                           const std::map<int, std::vector<std::string>>& params)
      REQUIRES(generalAppMutex_);

  // Puts the reserved cores in the place of a core list that stands for all of them.
  void ResolveCoreAffinityAll(App::GeneralAppInfo& app) const REQUIRES(generalAppMutex_);

  // Gives every record the manifest that is loaded under its name by now. A process keeps what it
  // was started with.
  void UpdateManifests() EXCLUDES(generalAppMutex_);

 private:
  [[nodiscard]] GeneralAppPtr MakeDynamicApp(const std::string& name, const std::string& owner)
      REQUIRES(generalAppMutex_);
  void UpdateAllGeneralAppMap(const std::string& name, const std::string& owner)
      REQUIRES(generalAppMutex_);
  // The program that stands behind a name; empty if the name is unknown or is running.
  [[nodiscard]] std::string ProgramToStart(const std::string& name) REQUIRES(generalAppMutex_);

  StartupCfg& startupCfg_;
  // The cores that a core list of 255 stands for. Nothing fills it.
  const std::set<std::uint32_t> reservedCoreSet_;
  Records allGeneralAppMap_ GUARDED_BY(generalAppMutex_);
};

}  // namespace ProcMgr

#endif  // CORE_GENERAL_APP_TABLE_H
