// pm-demo boots the example platform in a sandbox, takes one service away, shows that it comes
// back, runs applications on it as an operator does, and ends it in order. The host sees nothing of
// it.
#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/daemon.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"
#include "tools/demo/demo_log.h"
#include "tools/demo/demo_operator.h"
#include "tools/demo/demo_platform.h"
#include "tools/demo/demo_table.h"

namespace {

constexpr const char* kVictim = "camera_service";

std::atomic<bool> interrupted = false;

void OnInterrupt(int) {
  interrupted = true;
}

void Say(const std::string& text) {
  std::printf("\n== %s\n", text.c_str());
  (void)std::fflush(stdout);
}

void Boot(Demo::DemoLog& log) {
  const PmSandbox::LogLine end =
      log.Await({"EnableWatchDog flag="}, "the boot did not come to its end");
  if (!end.text.ends_with("flag=1")) {
    throw std::runtime_error("a service could not be started; see the lines marked E");
  }
}

pid_t PidOf(const std::vector<Demo::ServiceRow>& rows, const std::string& name) {
  for (const Demo::ServiceRow& row : rows) {
    if (row.name == name && row.state == "running") {
      return row.pid;
    }
  }
  throw std::runtime_error(name + " isn't running");
}

void LoseAndRegain(const std::vector<Demo::ServiceRow>& rows, Demo::DemoLog& log) {
  const pid_t pid = PidOf(rows, kVictim);
  Say("kill -9 " + std::to_string(pid) + " (" + kVictim + ")");
  if (kill(pid, SIGKILL) != 0) {
    throw std::runtime_error(std::string("can't kill ") + kVictim);
  }
  // Its report may come in before the check pass says that the restart is through.
  log.Await({"restart success", std::string("msg from ") + kVictim + " report state="},
            std::string(kVictim) + " has not come back");
}

// Compares what there is with what the platform promises.
void CheckRows(const std::vector<Demo::PlatformService>& services,
               const std::vector<Demo::ServiceRow>& rows) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Demo::PlatformService& service = services[i];
    const Demo::ServiceRow& row = rows[i];
    const std::string expected = service.staysUp ? "running" : "ended";
    const int restarts = service.name == kVictim ? 1 : 0;
    if (row.state != expected || row.restarts != restarts) {
      throw std::runtime_error(row.name + " should be " + expected + " with " +
                               std::to_string(restarts) + " restarts");
    }
    if (service.staysUp && !row.readyMs.has_value()) {
      throw std::runtime_error(row.name + " has not become ready");
    }
    if (service.staysUp && row.user != service.user) {
      throw std::runtime_error(row.name + " runs as " + row.user + ", not as " + service.user);
    }
  }
}

void Stay(const PmSandbox::Daemon& daemon, Demo::DemoLog& log) {
  Say("the platform stays up; the manager is process " + std::to_string(daemon.Pid()) +
      "; look around with: nsenter -m -t " + std::to_string(daemon.Pid()) + "; Ctrl-C ends it");
  log.PrintOn();
}

void Stop(const PmSandbox::Sandbox& sandbox, const PmSandbox::LogReader& lines,
          PmSandbox::Daemon& daemon) {
  Say("the orderly stop, in the reverse order of the boot");
  Demo::ShowShutdown(sandbox);
  if (daemon.WaitExit() != 0) {
    throw std::runtime_error("the manager's exit status isn't 0");
  }
  for (const PmSandbox::LogLine& line : lines.Lines()) {
    if (line.text.find("orderly stop") != std::string::npos) {
      std::printf("%s\n", line.text.c_str());
    }
  }
}

std::string WithEarlyApp(const std::string& entries) {
  return entries +
         "\n  - appName: early_light\n"
         "    binPath: /opt/platform/bin/sample_app\n"
         "    uid: operator\n    gid: operator\n"
         "    startupPriority: 1\n"
         "    resGroupName: OTHER\n    cpuset: CtrlCPU\n";
}

// Prints the kernel log from line `from` on, and yields its length.
std::size_t PrintKernelLog(const PmSandbox::Sandbox& sandbox, std::size_t from) {
  const std::vector<PmSandbox::LogLine> lines = PmSandbox::KernelLog(sandbox);
  for (std::size_t i = from; i < lines.size(); ++i) {
    std::printf("   kmsg  %s\n", lines[i].text.c_str());
  }
  (void)std::fflush(stdout);
  return lines.size();
}

// The early phase of a quick start: the kernel log has it, and it lasts until the continue signal.
void ContinueQuickStart(const PmSandbox::Sandbox& sandbox, const PmSandbox::Daemon& daemon) {
  if (!PmSandbox::WaitForKernelLog(sandbox, "InitPriorityApps start priority apps finish")) {
    throw std::runtime_error("the priority applications have not come up");
  }
  const std::size_t shown = PrintKernelLog(sandbox, 0);
  Say("kill -CONT " + std::to_string(daemon.Pid()) + " (the quick start may go on)");
  if (kill(daemon.Pid(), SIGCONT) != 0 ||
      !PmSandbox::WaitForKernelLog(sandbox, "wait success for continue startup")) {
    throw std::runtime_error("the manager has not heard the continue signal");
  }
  (void)PrintKernelLog(sandbox, shown);
}

void Run(bool stay, bool quick) {
  const PmSandbox::Sandbox sandbox;
  Demo::InstallPlatform(sandbox);
  const PmSandbox::LogReader lines(sandbox);
  Demo::DemoLog log(lines, interrupted);
  const bool withPython = Demo::HasPython(sandbox);
  const std::vector<Demo::PlatformService> services = Demo::PlatformServices(withPython);
  std::vector<std::string> arguments = {withPython ? Demo::kPythonPlatformFile
                                                   : Demo::kPlatformFile};
  if (quick) {
    sandbox.WriteFile(Demo::kOperatorEntries,
                      WithEarlyApp(sandbox.ReadFile(Demo::kOperatorEntries)));
    arguments.emplace_back("true");
  }
  Say("process-manager " + arguments[0] + (quick ? " true" : ""));
  PmSandbox::Daemon daemon(sandbox, arguments);
  if (quick) {
    ContinueQuickStart(sandbox, daemon);
  }
  Boot(log);
  if (quick) {
    Say("the early application belongs to the operator service now");
    Demo::ShowHandOver(sandbox, "early_light");
  }
  LoseAndRegain(Demo::CollectTable(sandbox, services, lines.Lines()), log);
  Say("an operator runs applications");
  Demo::ShowOperator(sandbox);
  Say("a program that its user may not run");
  Demo::ShowFault(sandbox);
  Say("where the boot's time went, and what runs");
  Demo::ShowPicture(sandbox);
  const std::vector<Demo::ServiceRow> rows = Demo::CollectTable(sandbox, services, lines.Lines());
  Demo::PrintTable(rows);
  CheckRows(services, rows);
  if (!daemon.IsRunning()) {
    throw std::runtime_error("the manager has ended");
  }
  if (stay) {
    Stay(daemon, log);
  }
  Stop(sandbox, lines, daemon);
}

int RunWithArguments(int argc, char** argv) {
  bool stay = false;
  bool quick = false;
  CLI::App app{
      "Boots the example platform in a sandbox, kills a service, shows it return, and runs "
      "applications with pmctl."};
  app.add_flag("--stay", stay, "keep the platform up until Ctrl-C");
  app.add_flag("--quick", quick, "a quick start: an application ahead of the boot, then a SIGCONT");
  CLI11_PARSE(app, argc, argv);
  Run(stay, quick);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  (void)std::signal(SIGINT, &OnInterrupt);
  (void)std::signal(SIGTERM, &OnInterrupt);
  try {
    return RunWithArguments(argc, argv);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "demo: %s\n", e.what());
  } catch (...) {
    (void)std::fprintf(stderr, "demo: failed for an unknown reason\n");
  }
  return 1;
}
