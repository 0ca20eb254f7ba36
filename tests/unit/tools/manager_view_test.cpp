// What pmctl makes of the manager's answers.
#include "tools/pmctl/manager_view.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tools/pmctl/boot_view.h"
#include "tools/pmctl/status_view.h"

namespace PmCtl {
namespace {

using nlohmann::json;

json App(const std::string& name, const char* state, const json& cause = {},
         const json& exits = json::array()) {
  return {{"name", name}, {"state", state}, {"since", 90}, {"cause", cause}, {"exits", exits}};
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
                         App("back", "running", {}, died), App("od\nd", "running")}}};
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
    app.update({{"kind", "base"}, {"owner", {}}, {"pid", {}}, {"restarts", {{"count", 2}}}});
    status["apps"].push_back(app);
  }
  status["apps"][3]["cause"] = Cause("dependency", "it needs\tmap", "map");
  const std::string manager =
      "manager, pid 4, up for 60.0 s; 6 applications, 2 wrong; the boot waits for gps, for 2.0 s\n";
  EXPECT_EQ(FormatStatus(status, false),
            "NAME         KIND  OWNER  PID  STATE        FOR  RESTARTS  WHY\n"
            "is-blocked   base  -        -  blocked   10.0 s         2  it needs\\x09map\n"
            "is-failed    base  -        -  failed    10.0 s         2\n"
            "is-starting  base  -        -  starting  10.0 s         2\n"
            "is-running   base  -        -  running   10.0 s         2\n"
            "is-ended     base  -        -  ended     10.0 s         2\n"
            "is-left-out  base  -        -  left-out  10.0 s         2\n" +
                manager);
  KeepWrong(status);
  const std::string coloured = FormatStatus(status, true);
  EXPECT_NE(coloured.find("\n\033[1;31mis-failed "), std::string::npos) << coloured;
  EXPECT_EQ(coloured.find("is-running"), std::string::npos);
}

TEST(FormatBoot, ShowsWhatStillGoesOn) {
  const json boot = {{"begin", 0},
                     {"end", {}},
                     {"spans",
                      {{{"name", "PROCMGR"}, {"phase", "init"}, {"begin", 0.25}, {"end", 2.75}},
                       {{"name", "gps"}, {"phase", "ready"}, {"begin", 3}, {"end", {}}}}}};
  EXPECT_EQ(FormatBoot(boot),
            "BEGIN  END   MS  PHASE  NAME\n"
            "  0.2  2.8  2.5  init   PROCMGR\n"
            "  3.0    -    -  ready  gps\n"
            "the boot goes on\n");
}

}  // namespace
}  // namespace PmCtl
