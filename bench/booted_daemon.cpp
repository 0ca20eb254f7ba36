#include "bench/booted_daemon.h"

#include <algorithm>
#include <stdexcept>

#include "bench/clock.h"
#include "sandbox/service_file.h"

namespace PmBench {
namespace {

// Of 10,000 in one file the manager would say that it is too large.
constexpr int kServicesInAFile = 1000;

}  // namespace

BootedDaemon::BootedDaemon(int services,
                           const std::vector<std::pair<std::string, std::string>>& keys,
                           const std::string& settings)
    : serviceFile_(Prepare(services, keys, settings)),
      startNs_(MonotonicNs()),
      daemon_(sandbox_, {serviceFile_}) {
  if (!log_.WaitFor("InitBaseApplication end").has_value()) {
    throw std::runtime_error("the boot didn't come to its end:\n" + log_.Text());
  }
  (void)marks_.Await(static_cast<std::size_t>(services));
}

std::string BootedDaemon::Prepare(int services,
                                  const std::vector<std::pair<std::string, std::string>>& keys,
                                  const std::string& settings) const {
  PrepareHost(sandbox_);
  if (!settings.empty()) {
    sandbox_.WriteSettings(settings);
  }
  std::string includes;
  for (int first = 0; first < services; first += kServicesInAFile) {
    std::vector<PmSandbox::App> apps;
    for (int i = first; i < std::min(services, first + kServicesInAFile); ++i) {
      PmSandbox::App app{"service" + std::to_string(i), kServicePath, {marks_.Path()}, keys};
      app.keys.emplace_back("envArgv", "{PROC_NAME: " + app.name + "}");
      apps.push_back(std::move(app));
    }
    const std::string name = "from" + std::to_string(first) + ".yaml";
    sandbox_.WriteFile(PmSandbox::Sandbox::kDir + ("/" + name), PmSandbox::ServiceFile(apps));
    includes += "\n  - include: " + name;
  }
  std::string path = std::string(PmSandbox::Sandbox::kDir) + "/base.yaml";
  sandbox_.WriteFile(path, "applications:" + (includes.empty() ? " []" : includes) + "\n");
  return path;
}

}  // namespace PmBench
