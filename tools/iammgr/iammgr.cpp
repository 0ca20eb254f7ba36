// iammgr, the access manager: the first service to come up, on which every other one depends. It
// hears of every process and shows what it knows at a local socket, to root and to its own group:
// whatever the request, the answer is the picture as JSON.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string>

#include "base/names.h"
#include "tools/iammgr/picture.h"
#include "tools/local/local_client.h"
#include "tools/local/local_server.h"
#include "tools/service/base_service.h"
#include "tools/service/service_program.h"

namespace {

constexpr unsigned kServerThreads = 2;

struct Wish {
  std::string serviceFile = "/etc/zur/base-plat/process-manager/base_services.yaml";
  std::string socket = Local::kIammgrSocket;
  unsigned waitSeconds = Services::kDefaultWaitSeconds;
};

void Serve(const Wish& wish) {
  Services::BlockEndSignals();
  Iammgr::Picture picture(wish.serviceFile);
  // Nobody tells the access manager about itself.
  picture.Apply({{ProcMgr::kAccessService, getpid(), getgid(), 0, 0}}, std::time(nullptr));
  ProcMgr::Agent::Callbacks callbacks;
  callbacks.appStates = [&picture](const auto& changes) {
    picture.Apply(changes, std::time(nullptr));
  };
  Services::BaseService service(ProcMgr::kAccessService, std::move(callbacks));
  service.AwaitManager(std::chrono::seconds(wish.waitSeconds));
  const Local::LocalServer server(wish.socket, kServerThreads,
                                  [&picture](const std::string&) { return picture.ToJson(); });
  service.ReportReady();
  while (service.Run(std::chrono::seconds(1))) {
  }
}

int Run(int argc, char** argv) {
  CLI::App app{
      "The access manager: a base service, which the process manager starts. It hears of every "
      "process, and tells root and its own group at a socket what it knows.\n"
      "Exit status: 0 told to end, 1 can't serve, 2 wrong usage.",
      "iammgr"};
  app.set_version_flag("--version", "iammgr " PM_VERSION);
  Wish wish;
  app.add_option("SERVICE-FILE", wish.serviceFile,
                 "The file that the manager is started with: it tells base services, general "
                 "applications and processes that report themselves apart")
      ->capture_default_str();
  Services::AddSocketOption(app, "SOCKET", "Where the picture is shown", wish.socket);
  Services::AddWaitOption(app, wish.waitSeconds);
  if (const auto status = Services::Parse(app, argc, argv); status.has_value()) {
    return *status;
  }
  Serve(wish);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "iammgr: %s\n", e.what());
    return 1;
  }
}
