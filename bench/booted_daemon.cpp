#include "bench/booted_daemon.h"

#include <stdexcept>

#include "bench/clock.h"
#include "sandbox/service_file.h"

namespace PmBench {

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
  std::vector<PmSandbox::App> apps;
  apps.reserve(static_cast<std::size_t>(services));
  for (int i = 0; i < services; ++i) {
    PmSandbox::App app{"service" + std::to_string(i), kServicePath, {marks_.Path()}, keys};
    app.keys.emplace_back("envArgv", "{PROC_NAME: " + app.name + "}");
    apps.push_back(std::move(app));
  }
  std::string path = std::string(PmSandbox::Sandbox::kDir) + "/base.yaml";
  sandbox_.WriteFile(path, apps.empty() ? "applications: []\n" : PmSandbox::ServiceFile(apps));
  return path;
}

}  // namespace PmBench
