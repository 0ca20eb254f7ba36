#include "bench/served_daemon.h"

#include "message/request_msg.h"
#include "sandbox/service_file.h"
#include "sandbox/system_error.h"

namespace PmBench {
namespace {

using PmSandbox::Demand;

std::vector<std::string> Names(int first, int count) {
  std::vector<std::string> names;
  for (int i = first; i < first + count; ++i) {
    names.push_back("app-" + std::to_string(i));
  }
  return names;
}

}  // namespace

ServedDaemon::ServedDaemon() : serviceFile_(Prepare()), daemon_(sandbox_, {serviceFile_}) {
  Boot();
}

std::string ServedDaemon::Prepare() const {
  PrepareHost(sandbox_);
  const std::string folder = PmSandbox::Sandbox::kDir;
  sandbox_.WriteFile(
      folder + "/applications.yaml",
      PmSandbox::ServiceFile({{"app-${[0-9]+}", kServicePath, {marks_.Path(), "--rest"}, {}}}));
  const std::vector<std::string> arguments = {services_.Path(), "--rest"};
  sandbox_.WriteFile(
      folder + "/base.yaml",
      PmSandbox::ServiceFile({{"iammgr", kServicePath, arguments, {{"isReporting", "true"}}},
                              {"owner",
                               kServicePath,
                               arguments,
                               {{"isReporting", "true"},
                                {"dependList", "[iammgr]"},
                                {"startupEntryPath", folder + "/applications.yaml"}}}}));
  return folder + "/base.yaml";
}

void ServedDaemon::Boot() {
  for (PmSandbox::AgentPeer* const agent : {&iammgr_, &owner_}) {
    Demand(agent->AwaitChannel() && agent->ReportState(PmSandbox::kStateReady),
           agent->Name() + " got no channel:\n" + log_.Text());
  }
  Demand(log_.WaitFor("InitBaseApplication end").has_value(),
         "the boot didn't come to its end:\n" + log_.Text());
  Demand(owner_.LoadStartupCfg() == "0", "the applications can't be loaded:\n" + log_.Text());
}

void ServedDaemon::Start(int first, int count) const {
  std::vector<ProcMgr::Message::StartAppInfo> list;
  for (const std::string& name : Names(first, count)) {
    list.push_back({name, {}, {}});
  }
  Demand(owner_.StartApps(list), "the channel has broken");
}

void ServedDaemon::Terminate(int first, int count) const {
  Demand(owner_.TermApps(Names(first, count)), "the channel has broken");
}

void ServedDaemon::Query(int first, int count) {
  const auto states = owner_.Query(Names(first, count));
  Demand(states.size() == static_cast<std::size_t>(count), "a query isn't answered");
}

std::vector<pid_t> ServedDaemon::AwaitReports(int count, std::uint32_t state) {
  std::vector<pid_t> pids;
  for (int i = 0; i < count; ++i) {
    const auto report = owner_.NextReport();
    Demand(report.has_value(),
           std::to_string(i) + " of " + std::to_string(count) + " reports came");
    Demand(report->state == state,
           report->appName + " is reported as " + std::to_string(report->state));
    pids.push_back(static_cast<pid_t>(report->pid));
  }
  return pids;
}

}  // namespace PmBench
