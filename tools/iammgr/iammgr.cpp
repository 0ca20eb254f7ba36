// iammgr, the access manager: the first service to come up, on which every other one depends. The
// manager reports every process to it. That of a real board grants rights by that; this one takes
// the reports and holds its place.
#include <string>

#include "base/names.h"
#include "tools/service/base_service.h"
#include "tools/service/service_program.h"

namespace {

struct Wish {
  unsigned waitSeconds = Services::kDefaultWaitSeconds;
  std::string serviceFile;  // Service files of earlier versions still give it.
};

void Serve(const Wish& wish) {
  ProcMgr::Agent::Callbacks callbacks;
  callbacks.appStates = [](const auto&) {};  // Here rights would be granted and withdrawn.
  Services::BaseService service(ProcMgr::kAccessService, std::move(callbacks));
  service.AwaitManager(std::chrono::seconds(wish.waitSeconds));
  service.ReportReady();
  while (service.Run(std::chrono::seconds(1))) {
  }
}

void AddOptions(CLI::App& app, Wish& wish) {
  Services::AddWaitOption(app, wish.waitSeconds);
  Services::AddPathOption(app, "FILE", "Not needed any more, and not read", wish.serviceFile);
}

}  // namespace

int main(int argc, char** argv) {
  return Services::Main<Wish>(
      argc, argv,
      {"iammgr", PM_VERSION,
       "The access manager: a base service, which the process manager starts, and to which it "
       "reports every process. It stands in for that of a real board.",
       &AddOptions, &Serve});
}
