// What pmctl makes of the manager's answers.
#include "tools/pmctl/manager_view.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/temp_folder.h"
#include "tools/pmctl/boot_view.h"
#include "tools/pmctl/last_lines.h"
#include "tools/pmctl/status_view.h"
#include "tools/pmctl/top.h"

namespace PmCtl {
namespace {

using nlohmann::json;

json App(const std::string& name, const char* state, const json& cause = {},
         const json& exits = json::array()) {
  return {{"name", name}, {"kind", "base"}, {"state", state},
          {"since", 90},  {"cause", cause}, {"exits", exits}};
}

json Cause(const char* what, const char* text, const json& on = {}) {
  return {{"what", what}, {"text", text}, {"on", on}};
}

TEST(FormatWhy, FollowsTheChainToItsRoot) {
  const json died = {
      {{"how", "signal"}, {"value", 9}, {"text", "Killed"}, {"time", 40}, {"pid", 7}}};
  const json status = {{"time", 100},
                       {"apps",
                        {App("ui", "blocked", Cause("dependency", "it needs map", "map")),
                         App("map", "blocked", Cause("dependency", "it needs gps", "gps")),
                         App("gps", "given-up", Cause("limit", "5 restarts in a minute")),
                         App("lost", "blocked", Cause("dependency", "it needs nobody", "nobody")),
                         App("ring1", "blocked", Cause("dependency", "it needs ring2", "ring2")),
                         App("ring2", "blocked", Cause("dependency", "it needs ring1", "ring1")),
                         App("back", "running", {}, died), App("od\nd", "running"),
                         App("dead", "failed", Cause("exit", "exit status 3")),
                         App("gone", "ended", Cause("request", "itself has asked"))}}};
  const struct {
    const char* name;
    const char* text;
  } rows[] = {
      {"ui",
       "ui is blocked for 10.0 s: it needs map\n"
       "  map is blocked for 10.0 s: it needs gps\n"
       "    gps is given-up for 10.0 s: 5 restarts in a minute -> mend what ends it; it comes up "
       "again with the manager\n"},
      {"lost", "lost is blocked for 10.0 s: it needs nobody\n  nobody is not known\n"},
      {"ring1",
       "ring1 is blocked for 10.0 s: it needs ring2\n"
       "  ring2 is blocked for 10.0 s: it needs ring1\n"},
      {"back",
       "back is running for 10.0 s; before that it ended: signal 9 Killed, 60.0 s ago, pid 7\n"},
      {"od\nd", "od\\x0ad is running for 10.0 s; it has never ended\n"},
      {"gone",
       "gone is ended for 10.0 s: itself has asked -> it comes up again with the manager\n"},
      {"dead",
       "dead is failed for 10.0 s: exit status 3 -> see what it has said: pmctl show dead\n"},
      {"stranger", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(FormatWhy(status, row.name), row.text);
  }
}

TEST(FormatStatus, ShowsFirstWhatIsWrong) {
  json status = {{"time", 100},
                 {"manager",
                  {{"pid", 4},
                   {"since", 40},
                   {"boot", "running"},
                   {"awaited", {{"name", "gps"}, {"since", 98}}}}},
                 {"apps", json::array()}};
  for (const char* state : {"running", "ended", "starting", "blocked", "left-out", "failed"}) {
    json app = App(std::string("is-") + state, state);
    app.update({{"owner", {}}, {"pid", {}}, {"restarts", {{"count", 2}}}});
    status["apps"].push_back(app);
  }
  status["apps"][3]["cause"] = Cause("dependency", "it needs\tmap", "map");
  const std::string manager =
      "manager, pid 4, up for 60.0 s; 6 applications, 2 wrong; the boot waits for gps, for 2.0 s\n";
  EXPECT_EQ(FormatStatus(status, false),
            manager +
                "NAME         KIND  OWNER  PID  STATE        FOR  RESTARTS  WHY\n"
                "is-blocked   base  -        -  blocked   10.0 s         2  it needs\\x09map\n"
                "is-failed    base  -        -  failed    10.0 s         2\n"
                "is-starting  base  -        -  starting  10.0 s         2\n"
                "is-running   base  -        -  running   10.0 s         2\n"
                "is-ended     base  -        -  ended     10.0 s         2\n"
                "is-left-out  base  -        -  left-out  10.0 s         2\n");
  KeepWrong(status);
  const std::string coloured = FormatStatus(status, true);
  EXPECT_NE(coloured.find("\n\033[1;31mis-failed "), std::string::npos) << coloured;
  EXPECT_EQ(coloured.find("is-running"), std::string::npos);
}

json Span(const char* name, const char* phase, double begin, const json& end) {
  return {{"name", name}, {"phase", phase}, {"begin", begin}, {"end", end}};
}

TEST(FormatBoot, TellsTheChainAndWhatStillGoesOn) {
  const json boot = {{"begin", 0},
                     {"end", {}},
                     {"time", 100},
                     {"now", 40},
                     {"awaited", {{"name", "gps"}, {"since", 99.98}}},
                     {"spans",
                      {Span("PROCMGR", "init", 0, 2.5), Span("job", "fork", 2.5, 2.75),
                       Span("job", "ready", 2.75, 35), Span("gps", "checks", 3, 4),
                       Span("gps", "fork", 4, 4.5), Span("gps", "ready", 4.5, {})}}};
  EXPECT_EQ(FormatBoot(MakeTimeline(boot)),
            "BEGIN   MS  PHASE\n"
            "  0.0  2.5  init\n"
            "\n"
            "BEGIN  CHECKS  FORK  READY  CHANNEL    MS  NAME\n"
            "  2.5       -   0.2   32.2        -  32.5  job\n"
            "  3.0     1.0   0.5  35.5+        -  37.0  gps\n"
            "\n"
            "the critical chain, each link having waited for the one before it:\n"
            "BEGIN    MS  WHAT\n"
            "  0.0   2.5  init PROCMGR\n"
            "  3.0   1.0  checks gps\n"
            "  4.0   0.5  fork gps\n"
            "  4.5  35.5  ready gps\n"
            "and 1 shorter ones, together 0.2 ms\n"
            "\n"
            "the boot goes on for 40.0 ms, and waits for gps, for 0.0 s\n");
  json later = boot;
  later["end"] = 50;
  later["spans"][2]["end"] = 45;
  later["spans"].push_back(Span("new", "ready", 46, 47));
  EXPECT_EQ(CompareBoots(MakeTimeline(later), MakeTimeline(boot)),
            "BEFORE   NOW  CHANGE  NAME\n"
            "  32.5  42.5   +10.0  job\n"
            "  37.0  44.0    +7.0  gps\n"
            "     -   1.0    +1.0  new\n"
            "   2.5   2.5    +0.0  PROCMGR\n"
            "the boot took 50.0 ms, before 40.0 ms: +10.0 ms\n");
}

TEST(LastLines, AreThoseOfTheProcessesInTheFile) {
  const PmTest::TempFolder folder;
  std::string text;
  std::vector<std::string> expected;
  for (int i = 0; i < 12; ++i) {
    const std::string line = "board gps[4194305]: line " + std::to_string(i);
    text += line + "\tx\nboard other[41943051]: noise\n";
    expected.push_back(line + "\\x09x");
  }
  expected.erase(expected.begin(), expected.begin() + 2);
  // No process of any machine has these numbers.
  const std::vector<pid_t> pids = {4194304, 4194305};
  EXPECT_EQ(LastLines(pids, {folder.Path("none"), folder.Write("messages", text)}), expected);
}

TEST(FormatTop, SortsByTheChosenColumn) {
  const auto sample = [](int seconds, std::uint64_t cpuMs) {
    UsageSample all{ProcMgr::SteadyTime(std::chrono::seconds(seconds)), {}};
    all.usages = {{"idle", 4, {}}, {"busy", 5, {}}, {"new", 6 + seconds, {}}};
    all.usages[0].process = {7, 10, 900, std::nullopt, {}, {}, {}, {}};
    all.usages[1].process.cpuMs = cpuMs;
    all.usages[2].process.cpuMs = 0;
    return all;
  };
  const std::string heading = "NAME  PID  CPU %  MEMORY KiB  THREADS  DESCRIPTORS\n";
  const std::string idle = "idle    4    0.0         900        7            -\n";
  const std::string busy = "busy    5   75.0           -        -            -\n";
  const std::string fresh = "new     8      -           -        -            -\n";
  EXPECT_EQ(FormatTop(sample(0, 100), sample(2, 1600), "cpu"), heading + busy + idle + fresh);
  EXPECT_EQ(FormatTop(sample(0, 100), sample(2, 1600), "memory"), heading + idle + busy + fresh);
}

}  // namespace
}  // namespace PmCtl
