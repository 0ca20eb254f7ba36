#include "tools/pmctl/manager_commands.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <system_error>

#include "base/printable.h"
#include "base/sleep.h"
#include "base/small_file.h"
#include "base/steady_time.h"
#include "platform/manifest/checked_load.h"
#include "tools/pmctl/boot_page.h"
#include "tools/pmctl/boot_timeline.h"
#include "tools/pmctl/boot_view.h"
#include "tools/pmctl/last_lines.h"
#include "tools/pmctl/manager_client.h"
#include "tools/pmctl/manager_stop.h"
#include "tools/pmctl/manager_view.h"
#include "tools/pmctl/screen.h"
#include "tools/pmctl/status_view.h"
#include "tools/pmctl/top.h"

namespace PmCtl {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

// However much happens, a person reads no faster; and how long ago it was changes all the time.
constexpr milliseconds kShortestRedraw{100};
constexpr milliseconds kLongestRedraw{1000};

constexpr const char* kOperatorName = "operator";

std::string AsLine(const json& answer) {
  return answer.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

json Selected(const Options& options, json status) {
  if (options.onlyWrong) {
    KeepWrong(status);
  }
  return status;
}

// Returns once something has changed, or it is time to draw all the same.
void AwaitRedraw(ManagerWatch& watch) {
  const ProcMgr::SteadyTime drawn = ProcMgr::SteadyNow();
  ProcMgr::SteadyTime due = IsTerminal() ? drawn + kLongestRedraw : ProcMgr::SteadyTime::max();
  while (ProcMgr::SteadyNow() < due) {
    if (watch.Next(milliseconds(ProcMgr::MillisecondsUntil(due)))) {
      due = drawn + kShortestRedraw;
    }
  }
}

[[noreturn]] void WatchStatus(const Options& options) {
  ManagerWatch watch(options.manager);
  if (options.asJson) {
    Write(AsLine(Selected(options, watch.Status())));
  }
  while (true) {
    if (!options.asJson) {
      Redraw(FormatStatus(Selected(options, watch.Status()), IsColoured()));
      AwaitRedraw(watch);
    } else if (const auto line = watch.Next(kLongestRedraw)) {
      Write(AsLine(Selected(options, *line)));
    }
  }
}

// A boot that goes on is completed by what the status tells: how late it is, and who is awaited.
json AskForBoot(const Options& options) {
  json boot = AskManager(options.manager, {{"get", "boot"}});
  if (boot.at("end").is_null()) {
    const json status = AskManager(options.manager, {{"get", "status"}});
    const json& manager = status.at("manager");
    boot["now"] = 1000 * (status.at("time").get<double>() - manager.at("since").get<double>());
    boot["awaited"] = manager.at("awaited");
  }
  return boot;
}

// Of its process and of those that have ended.
std::vector<pid_t> PidsOf(const json& app) {
  std::vector<pid_t> pids;
  if (!app.at("pid").is_null()) {
    pids.push_back(app.at("pid").get<pid_t>());
  }
  for (const json& exit : app.at("exits")) {
    pids.push_back(exit.at("pid").get<pid_t>());
  }
  return pids;
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) {
    throw std::runtime_error("can't write " + path);
  }
}

json ReadBoot(const std::string& path) {
  constexpr std::size_t kLimit = std::size_t{64} << 20;
  std::string text;
  if (const int error = ProcMgr::ReadSmallFile(path, kLimit, text); error != 0) {
    throw std::runtime_error("can't read " + path + ": " + std::generic_category().message(error));
  }
  return json::parse(text);
}

// What the start-up file of a base service names, whether or not anybody has asked for it; no
// patterns.
std::set<std::string> StartableNames(const Options& options, const std::string& owner) {
  const json app = AskManager(options.manager, {{"get", "app"}, {"name", owner}});
  if (app.at("start_file").is_null()) {
    return {};
  }
  std::set<std::string> names =
      ProcMgr::Manifest::LoadForCheck(app.at("start_file").get<std::string>(), {}).names;
  std::erase_if(names, [](const auto& name) { return name.find("${") != std::string::npos; });
  return names;
}

// Why an application isn't there that the manager has never heard of; empty if no start-up file
// names it.
std::string WhyUnknown(const Options& options, const json& status) {
  for (const json& app : status.at("apps")) {
    const auto owner = app.at("name").get<std::string>();
    if (app.at("kind") == "base" && StartableNames(options, owner).contains(options.name)) {
      return options.name + " isn't running: nobody has asked " + owner + " for it" +
             (owner == kOperatorName ? " -> pmctl start " + options.name : "") + "\n";
    }
  }
  return {};
}

}  // namespace

int Status(const Options& options) {
  if (options.watch) {
    WatchStatus(options);
  }
  const json status = Selected(options, AskManager(options.manager, {{"get", "status"}}));
  Write(options.asJson ? AsLine(status) : FormatStatus(status, IsColoured()));
  return options.onlyWrong && !status.at("apps").empty() ? kNotDone : kDone;
}

int Show(const Options& options) {
  const json app = AskManager(options.manager, {{"get", "app"}, {"name", options.name}});
  if (options.asJson) {
    Write(AsLine(app));
    return kDone;
  }
  std::string text = FormatApp(app);
  const std::vector<std::string> lines = LastLines(PidsOf(app));
  for (std::size_t i = 0; i < lines.size(); ++i) {
    text += (i == 0 ? "\n" : "") + lines[i] + "\n";
  }
  Write(text);
  return kDone;
}

int Why(const Options& options) {
  const json status = AskManager(options.manager, {{"get", "status"}});
  std::string text = FormatWhy(status, options.name);
  if (text.empty()) {
    text = WhyUnknown(options, status);
  }
  if (text.empty()) {
    throw CantAsk("the manager knows of no " + ProcMgr::Printable(options.name), 0);
  }
  Write(text);
  return kDone;
}

int Boot(const Options& options) {
  const json boot = AskForBoot(options);
  const BootTimeline timeline = MakeTimeline(boot);
  bool isWritten = false;
  for (const auto& [file, make] :
       {std::pair{&options.htmlFile, &BootPage}, std::pair{&options.svgFile, &BootSvg}}) {
    if (!file->empty()) {
      WriteFile(*file, make(timeline));
      isWritten = true;
    }
  }
  if (!options.saveFile.empty()) {
    WriteFile(options.saveFile, AsLine(boot));
    isWritten = true;
  }
  if (!options.compareFile.empty()) {
    Write(CompareBoots(timeline, MakeTimeline(ReadBoot(options.compareFile))));
  } else if (options.asJson || !isWritten) {
    Write(options.asJson ? AsLine(boot) : FormatBoot(timeline));
  }
  return kDone;
}

int Names(const Options& options) {
  std::set<std::string> names;
  const json status = AskManager(options.manager, {{"get", "status"}});
  for (const json& app : status.at("apps")) {
    const auto name = app.at("name").get<std::string>();
    if (!options.onlyGeneral || app.at("kind") == "general") {
      names.insert(name);
    }
    if (app.at("kind") == "base" && name == kOperatorName) {
      names.merge(StartableNames(options, kOperatorName));
    }
  }
  for (const std::string& name : names) {
    Write(ProcMgr::Printable(name) + "\n");
  }
  return kDone;
}

int Top(const Options& options) {
  const auto sample = [&options] {
    return SampleUsage(AskManager(options.manager, {{"get", "status"}}));
  };
  UsageSample before = sample();
  while (true) {
    ProcMgr::SleepNs(static_cast<std::int64_t>(options.interval * 1e9));
    UsageSample now = sample();
    const std::string text = FormatTop(before, now, options.sortKey);
    if (options.once) {
      Write(text);
      return kDone;
    }
    Redraw(text);
    before = std::move(now);
  }
}

int Shutdown(const Options& options) {
  const auto manager = [&options] {
    return AskManager(options.manager, {{"get", "status"}}).at("manager").at("pid").get<pid_t>();
  };
  const milliseconds limit(static_cast<std::int64_t>(options.stopTimeout * 1000));
  if (StopManager(manager, options.now, limit)) {
    Write("the manager has ended, and all that it had started\n");
    return kDone;
  }
  (void)std::fputs("pmctl: the manager hasn't ended in time; its log tells what it waits for\n",
                   stderr);
  return kNotDone;
}

}  // namespace PmCtl
