#include "tools/pmctl/taken_parameters.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "base/printable.h"
#include "base/sleep.h"
#include "base/small_file.h"
#include "base/steady_time.h"
#include "tools/pmctl/manager_client.h"

namespace PmCtl {
namespace {

// What ends in 0 bytes, as the kernel shows arguments and environments; none if it shows nothing.
std::optional<std::vector<std::string>> ReadTexts(const std::string& pid, const char* file) {
  constexpr std::size_t kLimit = std::size_t{4} << 20;
  std::string text;
  if (ProcMgr::ReadSmallFile("/proc/" + pid + "/" + file, kLimit, text) != 0 || text.empty()) {
    return std::nullopt;
  }
  std::vector<std::string> texts;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\0', begin), text.size());
    texts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return texts;
}

// A child that has yet to become its program still shows the manager's command line.
std::optional<std::vector<std::string>> CommandLineOf(const std::string& pid,
                                                      const std::string& manager) {
  constexpr std::chrono::seconds kPatience{1};
  constexpr std::int64_t kPauseNs = 10'000'000;
  const auto ofManager = ReadTexts(manager, "cmdline");
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
  while (true) {
    auto line = ReadTexts(pid, "cmdline");
    if (line && line != ofManager) {
      return line;
    }
    if (ProcMgr::SteadyNow() >= deadline) {
      return std::nullopt;
    }
    ProcMgr::SleepNs(kPauseNs);
  }
}

void AddMissing(std::string& text, const char* option, const std::string& value,
                const std::vector<std::string>& taken) {
  if (std::find(taken.begin(), taken.end(), value) == taken.end()) {
    text += (text.empty() ? "" : " ") + std::string(option) + " " + ProcMgr::Printable(value);
  }
}

}  // namespace

std::string UntakenParameters(const Options& options, const std::string& name) {
  if (options.args.empty() && options.env.empty() && options.path.empty()) {
    return {};
  }
  std::string pid;
  std::string manager;
  try {
    pid = AskManager(options.manager, {{"get", "app"}, {"name", name}}).at("pid").dump();
    manager = AskManager(options.manager, {{"get", "status"}}).at("manager").at("pid").dump();
  } catch (const CantAsk&) {
    return {};  // The request is through; who may not look isn't told more.
  }
  std::string text;
  const auto line = CommandLineOf(pid, manager);
  if (!line) {
    return {};
  }
  for (const std::string& arg : options.args) {
    AddMissing(text, "--arg", arg, *line);
  }
  if (!options.path.empty()) {
    AddMissing(text, "--path", options.path, {line->front()});
  }
  if (const auto environment = ReadTexts(pid, "environ")) {
    for (const std::string& entry : options.env) {
      AddMissing(text, "--env", entry, *environment);
    }
  }
  return text;
}

}  // namespace PmCtl
