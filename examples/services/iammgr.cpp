// iammgr, the access manager of the example platform: the first service to come up, on which every
// other one depends. It hears of every process and shows what it knows at a local socket, to root
// and to its own group: whatever the request, the answer is the picture as JSON.
//
//   iammgr [SERVICE-FILE [SOCKET]]
//
// SERVICE-FILE is the one that the manager is started with; it tells base services, general
// applications and self-reported processes apart.
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <exception>
#include <string>

#include "base/names.h"
#include "examples/services/picture.h"
#include "examples/services/service.h"
#include "tools/local/local_client.h"
#include "tools/local/local_server.h"

namespace {

constexpr const char* kDefaultServiceFile = "/etc/zur/platform/platform.yaml";
constexpr unsigned kServerThreads = 2;

int Run(const std::string& serviceFile, const std::string& socket) {
  Example::BlockEndSignals();
  Example::Picture picture(serviceFile);
  // Nobody tells the access manager about itself.
  picture.Apply({{ProcMgr::kAccessService, getpid(), getgid(), 0, 0}}, std::time(nullptr));
  const Local::LocalServer server(socket, kServerThreads,
                                  [&picture](const std::string&) { return picture.ToJson(); });
  ProcMgr::Agent::Callbacks callbacks;
  callbacks.appStates = [&picture](const auto& changes) {
    picture.Apply(changes, std::time(nullptr));
  };
  Example::Service service(ProcMgr::kAccessService, std::move(callbacks));
  service.ReportReady();
  while (service.Run(std::chrono::seconds(1))) {
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc > 1 ? argv[1] : kDefaultServiceFile, argc > 2 ? argv[2] : Local::kIammgrSocket);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "iammgr: %s\n", e.what());
    return 1;
  }
}
