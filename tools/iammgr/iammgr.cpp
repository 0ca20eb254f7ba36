// iammgr, the access manager: the first service to come up, on which every other one depends. It
// hears of every process and shows what it knows at a local socket, to root and to its own group:
// whatever the request, the answer is the picture as JSON.
#include <unistd.h>

#include <ctime>
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

void AddOptions(CLI::App& app, Wish& wish) {
  app.add_option("SERVICE-FILE", wish.serviceFile,
                 "The file that the manager is started with: it tells base services, general "
                 "applications and processes that report themselves apart")
      ->capture_default_str();
  Services::AddSocketOption(app, "SOCKET", "Where the picture is shown", wish.socket);
  Services::AddWaitOption(app, wish.waitSeconds);
}

}  // namespace

int main(int argc, char** argv) {
  return Services::Main<Wish>(
      argc, argv,
      {"iammgr", PM_VERSION,
       "The access manager: a base service, which the process manager starts. It hears of every "
       "process, and tells root and its own group at a socket what it knows.",
       &AddOptions, &Serve});
}
