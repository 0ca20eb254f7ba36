// operator, the base service behind pmctl: it runs the applications of its start-up file at the
// bidding of people, who reach it over a local socket if they are root or in its group.
//
//   operator [SOCKET [IAMMGR-SOCKET]]
#include <cstdio>
#include <exception>
#include <string>

#include "examples/services/operator_requests.h"
#include "examples/services/outcomes.h"
#include "examples/services/service.h"
#include "tools/local/local_client.h"
#include "tools/local/local_server.h"

namespace {

constexpr std::chrono::seconds kLoadLimit{30};
// Each request that waits for an outcome holds one.
constexpr unsigned kServerThreads = 8;

int Run(const std::string& socket, const std::string& iammgrSocket) {
  Example::Outcomes outcomes;
  ProcMgr::Agent::Callbacks callbacks;
  callbacks.appStates = [&outcomes](const auto& changes) { outcomes.Report(changes); };
  Example::Service service("operator", std::move(callbacks));
  const Example::OperatorRequests requests(service.Agent(), outcomes, iammgrSocket);
  const Local::LocalServer server(socket, kServerThreads, [&requests](const std::string& request) {
    return requests.Handle(request);
  });
  service.ReportReady();
  const ProcMgr::Result loaded = service.Agent().LoadStartupCfg({}, kLoadLimit);
  if (loaded != ProcMgr::Result::kOk) {
    // It serves on: a repaired file comes in with "pmctl load".
    (void)std::fprintf(stderr, "operator: load the start-up file: %s\n", ProcMgr::ToText(loaded));
  }
  while (service.Run(std::chrono::seconds(1))) {
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc > 1 ? argv[1] : Local::kOperatorSocket,
               argc > 2 ? argv[2] : Local::kIammgrSocket);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "operator: %s\n", e.what());
    return 1;
  }
}
