#include "bench/restarted_service.h"

#include <csignal>

#include "sandbox/system_error.h"

namespace PmBench {

PmSandbox::App RestartedService(const std::string& name, const Marks& marks,
                                const PmSandbox::Keys& keys, bool serves) {
  PmSandbox::App app{name, kServicePath, {marks.Path()}, keys};
  if (!serves) {
    app.arguments.emplace_back("--rest");
  }
  app.keys.emplace_back("restart", "on-forever");
  app.keys.emplace_back("envArgv", "{PROC_NAME: " + name + "}");
  return app;
}

void KillLast(const Marks& marks) {
  PmSandbox::CheckStep(kill(marks.Await(1).back().pid, SIGKILL) == 0, "kill");
}

void Restart(const Marks& marks) {
  const std::size_t before = marks.Await(1).size();
  KillLast(marks);
  (void)marks.Await(before + 1);
}

}  // namespace PmBench
