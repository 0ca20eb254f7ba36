#include "tools/demo/demo_operator.h"

#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/process.h"
#include "tools/demo/demo_platform.h"

namespace Demo {
namespace {

struct Result {
  int status = -1;
  std::string output;
};

Result RunPmctl(const PmSandbox::Sandbox& sandbox, const std::vector<std::string>& arguments) {
  PmSandbox::Process pmctl(sandbox, kPmctl, arguments, {{}, "pmctl"});
  const auto status = pmctl.WaitExit();
  if (!status.has_value() || !WIFEXITED(*status)) {
    throw std::runtime_error("pmctl has not come to its end");
  }
  return {WEXITSTATUS(*status), pmctl.Output()};
}

void Show(const PmSandbox::Sandbox& sandbox, const std::vector<std::string>& arguments,
          int expectedStatus = 0) {
  std::string command = "pmctl";
  for (const std::string& argument : arguments) {
    command += " " + argument;
  }
  const Result result = RunPmctl(sandbox, arguments);
  std::printf("\n$ %s\n%s", command.c_str(), result.output.c_str());
  (void)std::fflush(stdout);
  if (result.status != expectedStatus) {
    throw std::runtime_error(command + " has ended with " + std::to_string(result.status));
  }
}

// The application in the manager's status.
nlohmann::json RowOf(const PmSandbox::Sandbox& sandbox, const std::string& name) {
  const auto status = nlohmann::json::parse(RunPmctl(sandbox, {"status", "--json"}).output);
  for (const nlohmann::json& row : status.at("apps")) {
    if (row.at("name") == name) {
      return row;
    }
  }
  throw std::runtime_error("pmctl status doesn't know " + name);
}

void KillAndAwaitEnd(const PmSandbox::Sandbox& sandbox, const std::string& name) {
  const auto pid = RowOf(sandbox, name).at("pid").get<pid_t>();
  std::printf("\n$ kill -9 %d\n", pid);
  if (kill(pid, SIGKILL) != 0) {
    throw std::runtime_error("can't kill " + name);
  }
  if (!PmSandbox::Eventually([&] { return RowOf(sandbox, name).at("state") == "failed"; })) {
    throw std::runtime_error("the manager knows nothing of the end of " + name);
  }
}

}  // namespace

void ShowOperator(const PmSandbox::Sandbox& sandbox) {
  Show(sandbox, {"start", "recorder", "stubborn"});
  Show(sandbox, {"start", "encoder1", "--arg", "--h264", "--env", "QUALITY=high"});
  Show(sandbox, {"query", "encoder1", "recorder", "stubborn"});
  Show(sandbox, {"stop", "stubborn"});
  Show(sandbox, {"restart", "recorder"});
  KillAndAwaitEnd(sandbox, "encoder1");
  Show(sandbox, {"query", "encoder1", "recorder"}, 1);
}

void ShowFault(const PmSandbox::Sandbox& sandbox) {
  namespace fs = std::filesystem;
  const fs::path program = sandbox.Outside(kSampleApp);
  const fs::perms whole = fs::status(program).permissions();
  std::printf("\n$ chmod 600 %s\n", kSampleApp);
  fs::permissions(program, fs::perms::owner_read | fs::perms::owner_write);
  Show(sandbox, {"start", "stubborn"}, 1);
  Show(sandbox, {"status", "--failed"}, 1);
  Show(sandbox, {"why", "stubborn"});
  fs::permissions(program, whole);
}

void ShowPicture(const PmSandbox::Sandbox& sandbox) {
  Show(sandbox, {"boot"});
  Show(sandbox, {"status"});
}

void ShowShutdown(const PmSandbox::Sandbox& sandbox) {
  Show(sandbox, {"shutdown"});
}

void ShowHandOver(const PmSandbox::Sandbox& sandbox, const std::string& name) {
  Show(sandbox, {"query", name});
  Show(sandbox, {"start", name});  // It runs already: the owner takes it as it is.
  const nlohmann::json row = RowOf(sandbox, name);
  if (row.at("owner") != "operator" || row.at("state") != "running") {
    throw std::runtime_error(name + " has no owner, or doesn't run: " + row.dump());
  }
}

}  // namespace Demo
