// The smallest complete base service: it beats, says that it is ready, prints what it is told about
// applications, and says goodbye when it is asked to end.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>

#include "agent/process_manager_agent.h"

namespace {

void PrintChanges(const std::vector<ProcMgr::Message::AppStateInfo>& changes) {
  for (const ProcMgr::Message::AppStateInfo& change : changes) {
    std::printf("%s: pid %d, %s\n", change.appName.c_str(), change.pid,
                ProcMgr::GetReportAppStateTypeStr(change.state).c_str());
  }
  (void)std::fflush(stdout);
}

// Yields false, with a line that says why, if `result` isn't a success.
bool Check(const char* step, ProcMgr::Result result) {
  if (result != ProcMgr::Result::kOk) {
    (void)std::fprintf(stderr, "hello_service: %s: %s\n", step, ProcMgr::ToText(result));
  }
  return result == ProcMgr::Result::kOk;
}

}  // namespace

int main() {
  // Blocked before the first thread starts, so that the signal waits for sigwait below.
  sigset_t ends;
  (void)sigemptyset(&ends);
  (void)sigaddset(&ends, SIGTERM);
  (void)sigaddset(&ends, SIGINT);
  (void)sigprocmask(SIG_BLOCK, &ends, nullptr);

  ProcMgr::Agent::Options options;
  options.callbacks.appStates = &PrintChanges;
  std::unique_ptr<ProcMgr::Agent> agent;
  if (!Check("create the agent", ProcMgr::Agent::Create(options, agent)) ||
      !Check("start the heartbeat", agent->StartHeartbeat())) {
    return 1;
  }

  // A real service gets ready here. The manager opens its channel in a moment; wait for it.
  const ProcMgr::Result ready =
      agent->ReportState(ProcMgr::ServiceState::kReady, std::chrono::minutes(1));
  if (!Check("report that the service is ready", ready)) {
    return 1;
  }

  int signal = 0;
  (void)sigwait(&ends, &signal);
  (void)Check("say goodbye", agent->ReportState(ProcMgr::ServiceState::kGoingDown));
  return 0;
}
