// operator, the base service behind pmctl: it runs the applications of its start-up file at the
// bidding of people, who reach it over a local socket if they are root or in its group.
#include <cstdio>
#include <string>

#include "tools/local/local_client.h"
#include "tools/local/local_server.h"
#include "tools/operator/operator_requests.h"
#include "tools/operator/outcomes.h"
#include "tools/service/base_service.h"
#include "tools/service/service_program.h"

namespace {

constexpr std::chrono::seconds kLoadLimit{30};
// Each request that waits for an outcome holds one.
constexpr unsigned kServerThreads = 8;

struct Wish {
  std::string socket = Local::kOperatorSocket;
  unsigned waitSeconds = Services::kDefaultWaitSeconds;
};

void Serve(const Wish& wish) {
  Operator::Outcomes outcomes;
  ProcMgr::Agent::Callbacks callbacks;
  callbacks.appStates = [&outcomes](const auto& changes) { outcomes.Report(changes); };
  Services::BaseService service("operator", std::move(callbacks));
  service.AwaitManager(std::chrono::seconds(wish.waitSeconds));
  const Operator::OperatorRequests requests(service.Agent(), outcomes);
  const Local::LocalServer server(
      wish.socket, kServerThreads,
      [&requests](const std::string& request) { return requests.Handle(request); });
  service.ReportReady();
  const ProcMgr::Result loaded = service.Agent().LoadStartupCfg({}, kLoadLimit);
  if (loaded != ProcMgr::Result::kOk) {
    // It serves on: a repaired file comes in with "pmctl load".
    (void)std::fprintf(stderr, "operator: load the start-up file: %s\n", ProcMgr::ToText(loaded));
  }
  while (service.Run(std::chrono::seconds(1))) {
  }
}

void AddOptions(CLI::App& app, Wish& wish) {
  Services::AddPathOption(app, "SOCKET", "Where pmctl reaches it", wish.socket);
  Services::AddWaitOption(app, wish.waitSeconds);
}

}  // namespace

int main(int argc, char** argv) {
  return Services::Main<Wish>(
      argc, argv,
      {"operator", PM_VERSION,
       "The service behind pmctl: a base service, which the process manager starts. It runs the "
       "applications of its start-up file at the bidding of root and its own group.",
       &AddOptions, &Serve});
}
