// Who hears of what: "iammgr" of every process there is, an owner of its general applications.
//
// A report is sent once; a failure is logged and the news is lost for that receiver. Every call
// from any thread, and none waits: a report to a peer that has no room goes on without the caller.
#ifndef CORE_REPORTER_H
#define CORE_REPORTER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/app_info.h"
#include "base/mutex.h"
#include "core/app_lists.h"
#include "message/proc_mgr_master.h"
#include "message/request_msg.h"

namespace ProcMgr {

// One change of a general application, on its way to whoever owns it.
struct AppChange {
  std::string owner;
  Message::AppStateInfo info;
};

// The report of `state` about a record.
[[nodiscard]] Message::AppStateInfo MakeAppStateInfo(const App::AppInfo& app,
                                                     ReportAppStateType state,
                                                     std::uint32_t eioFlag);

// The report about a record that somebody asks about, rather than one that has just changed.
[[nodiscard]] Message::AppStateInfo MakeCurrentStateInfo(const App::AppInfo& app);

class Reporter {
 public:
  using Names = std::shared_ptr<const std::vector<std::string>>;

  // `master` has the channels and must outlive the reporter.
  explicit Reporter(ProcMgrMaster& master) : master_(master) {}

  // The names of the base applications that this boot takes part in, in manifest order: published
  // once by the bring-up, read by every fan-out.
  void PublishBaseAppNames(std::vector<std::string> names) EXCLUDES(baseNamesMutex_);
  [[nodiscard]] Names BaseAppNames() EXCLUDES(baseNamesMutex_);

  // Tells "iammgr" of a base application, unless that is the one.
  void ReportBaseAppState(const App::BaseAppInfo& app, ReportAppStateType state,
                          std::uint32_t eioFlag);

  // Tells "iammgr" of all changes, and every base application of those that it owns.
  void ReportGeneralApps(const std::vector<AppChange>& changes)
      EXCLUDES(generalAppMutex_, baseNamesMutex_);

  // Tells "iammgr" of all applications, as they are now.
  void ReportAllApps() EXCLUDES(generalAppMutex_, baseAppMutex_);

  // Tells "iammgr" of the manager itself.
  void RegisterVfs();

  // These two yield what the master channel's operations of the same names do.
  bool ReportAppState(const std::vector<Message::AppStateInfo>& list, const std::string& owner,
                      Outcome outcome = {});
  bool ReportAppDetailStatus(const std::map<std::string, int>& status, const std::string& owner);

 private:
  ProcMgrMaster& master_;
  Mutex baseNamesMutex_;
  Names baseAppNames_ GUARDED_BY(baseNamesMutex_) =
      std::make_shared<const std::vector<std::string>>();
};

}  // namespace ProcMgr

#endif  // CORE_REPORTER_H
