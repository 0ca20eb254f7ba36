// What the real daemon tells of itself at its status socket: every state and cause as it arises,
// and what clients can't do to it.
#include <list>

#include "base/small_file.h"
#include "tests/scenario/asking.h"
#include "tests/scenario/general_test.h"
#include "tests/support/forbidden_calls.h"

namespace PmTest {
namespace {

using nlohmann::json;

const std::string kOwn = std::string(kConfigDir) + "procmgr_cfg.yaml";

class StatusTest : public ScenarioTest {
 protected:
  // A program that isn't one, or that a shell runs.
  std::string Install(const std::string& name, const std::string& text, mode_t mode = 0755) const {
    std::string path = "/opt/test/" + name;
    sandbox_.WriteFile(path, text, mode);
    return path;
  }

  // What pmctl says of it.
  std::string Why(const std::string& name) {
    sandbox_.InstallProgram(ProgramPath("pmctl"), "/opt/test/pmctl");
    Process pmctl(sandbox_, "/opt/test/pmctl", {"why", name}, {{}, "pmctl"});
    EXPECT_EQ(pmctl.WaitExit(), 0);
    return pmctl.Output();
  }

  const Asking status_{sandbox_};
};

TEST_F(StatusTest, EveryStateAndCauseOfABoot) {
  sandbox_.WriteFile("/run/sandbox/emService.yaml", ServiceFile({Service("extra")}));
  sandbox_.WriteFile(std::string(kConfigDir) + "bin_hash.cfg",
                     "listed=" + std::string(64, '0') + "\n");
  const std::string listed = Install("listed", "#!/bin/sh\n");
  const std::string plainFile = Install("plain-file", "#!/bin/sh\n", 0644);
  const std::string noise = Install("noise", "no program");
  const std::string noInterpreter = Install("no-interpreter", "#!/nowhere/sh\n");
  const std::string dumping =
      Install("dumping", "#!/bin/sh\ncd /run/sandbox\nulimit -c unlimited\nkill -SEGV $$\n");
  // Its restarts are refused, for its program has gone.
  const std::string vanishing = Install("vanishing", "#!/bin/sh\nrm $0\nexit 3\n");
  sandbox_.WriteFile(kBaseFile,
                     ServiceFile({
                         Service("running"),
                         Service("exits", {"--exit-code", "3"}),
                         Service("ends", {"--exit-code", "0"}),
                         Service("dies", {"--crash", "9"}),
                         {"dumps", dumping, {}, {}},
                         Service("gives-up", {"--exit-code", "7"}, {{"restart", "on-failure"}}),
                         {"vanishes", vanishing, {}, {{"restart", "on-failure"}}},
                         {"noise", noise, {}, {}},
                         {"no-interpreter", noInterpreter, {}, {}},
                         {"missing", "/opt/test/nothing", {}, {}},
                         {"plain-file", plainFile, {}, {}},
                         {"listed", listed, {}, {}},
                         Service("argument", {"a;b"}),
                         Service("core", {}, {{"coreAffinity", "[0, 1023]"}}),
                         Reporting("z-silent"),
                         Service("second", {}, {{"dependList", "[missing]"}}),
                         Service("third", {}, {{"dependList", "[second]"}}),
                         Service("fourth", {}, {{"dependList", "[third]"}}),
                         Service("absent-needed", {}, {{"dependList", "[absent]"}}),
                         Service("circle-a", {}, {{"dependList", "[circle-b]"}}),
                         Service("circle-b", {}, {{"dependList", "[circle-a]"}}),
                     }) + "  - include: emService.yaml\n");
  AgentPeer silent(sandbox_, "z-silent");
  Start({kBaseFile});
  ASSERT_TRUE(silent.AwaitChannel());
  status_.Await("z-silent", "starting report");
  EXPECT_TRUE(Eventually([&] {
    return status_.Status().at("manager").at("awaited").value("name", "") == "z-silent";
  }));
  // Whoever depends on nobody that ran comes behind the one that the boot waits for.
  EXPECT_EQ(status_.Brief("second"), "waiting turn z-silent");
  EXPECT_THAT(Why("second"), HasSubstr("\n  z-silent is starting "));
  EXPECT_EQ(status_.Brief("circle-a"), "waiting turn z-silent");
  EXPECT_EQ(status_.Boot().at("end"), nullptr);
  EXPECT_EQ(status_.Details("z-silent").at("channel"), true);
  ASSERT_TRUE(silent.ReportState(kStateReady));
  AwaitBooted();

  // Where the kernel writes a core file into the process's own folder, one comes about.
  std::string pattern;
  ASSERT_EQ(ProcMgr::ReadSmallFile("/proc/sys/kernel/core_pattern", 4096, pattern), 0);
  const bool isDumped = !pattern.starts_with("|") && !pattern.starts_with("/");
  const std::pair<std::string, std::string> expected[] = {
      {"running", "running"},
      {"exits", "failed exit exit 3"},
      {"ends", "ended exit exit 0"},
      {"dies", "failed signal signal 9"},
      {"dumps", "failed signal core 11"},
      {"gives-up", "given-up limit exit 7"},
      {"vanishes", "given-up limit exit 3"},
      {"noise", "failed exec exec 1"},
      {"no-interpreter", "failed exec exec 1"},
      {"missing", "refused missing"},
      {"plain-file", "refused permission"},
      {"listed", "refused digest"},
      {"argument", "refused argument"},
      {"core", "refused core"},
      {"z-silent", "running"},
      {"second", "blocked dependency missing"},
      {"third", "blocked dependency second"},
      {"fourth", "blocked dependency third"},
      {"absent-needed", "blocked dependency absent"},
      {"circle-a", "blocked dependency circle-b"},
      {"circle-b", "blocked dependency circle-a"},
      {"extra", "left-out option"},
  };
  std::vector<std::string> names;
  for (const auto& [name, brief] : expected) {
    if (name != "dumps" || isDumped) {
      status_.Await(name, brief);
    }
    names.push_back(name);
  }
  // In the order of the file.
  std::vector<std::string> told;
  const json status = status_.Status();
  for (const json& app : status.at("apps")) {
    told.push_back(app.at("name"));
    EXPECT_EQ(app.at("pid").is_null(), app.at("state") != "running") << told.back();
  }
  EXPECT_EQ(told, names);
  const json givenUp = status_.App("gives-up");
  EXPECT_EQ(givenUp.at("restarts"), json::parse(R"({"count":5,"policy":"on-failure","left":0})"));
  EXPECT_EQ(givenUp.at("exits").size(), 6U);
  EXPECT_THAT(status_.App("noise").at("exits")[0].at("text"), HasSubstr("exec failed, errno=8"));
  EXPECT_THAT(status_.App("vanishes").at("cause").at("text"),
              HasSubstr("; the last time: there is no program "));
  EXPECT_THAT(Why("fourth"),
              MatchesRegex("fourth is blocked [^\n]*: [^\n]*third[^\n]*\n"
                           "  third is blocked [^\n]*: [^\n]*second[^\n]*\n"
                           "    second is blocked [^\n]*: [^\n]*missing[^\n]*\n"
                           "      missing is refused [^\n]* -> install its [^\n]*\n"));
  EXPECT_THAT(Why("circle-a"),
              MatchesRegex("circle-a is blocked[^\n]*\n  circle-b is blocked[^\n]*\n"));
  for (const auto& [name, advice] : {std::pair{"listed", "bin_hash.cfg"},
                                     {"core", "control set"},
                                     {"no-interpreter", "interpreter"},
                                     {"extra", "procmgr="},
                                     {"gives-up", "comes up again with the manager"}}) {
    EXPECT_THAT(Why(name), HasSubstr(advice)) << name;
  }
  EXPECT_EQ(status_.Details("fourth").at("depends"),
            json::parse(R"([{"name":"third","state":"blocked"}])"));
}

TEST_F(StatusTest, WhereNoProcessCanBeMade) {
  beforeDaemon_ = &ForbidProcesses;
  Boot({Service("plain"), Service("wanting", {}, {{"dependList", "[plain]"}})});
  status_.AwaitServed();
  status_.Await("plain", "refused fork");
  status_.Await("wanting", "blocked dependency plain");
}

TEST_F(StatusTest, SpansCoverTheBootAndNoRestart) {
  AgentPeer served(sandbox_, "served");
  Boot({Reporting("served", {{"restart", "on-forever"}}),
        Service("plain", {}, {{"dependList", "[served]"}})});
  ASSERT_TRUE(served.BecomeReady());
  AwaitBooted();
  ASSERT_TRUE(Eventually([&] { return status_.Boot().at("end").is_number(); }));
  status_.Await("plain", "running");
  const pid_t first = status_.App("served").at("pid");
  ASSERT_TRUE(Kill(first));
  ASSERT_TRUE(served.BecomeReady());
  status_.Await("served", "running signal 9");
  EXPECT_EQ(status_.App("served").at("restarts").at("count"), 1);
  EXPECT_GT(status_.App("served").at("ready_ms"), 0);

  const json boot = status_.Boot();
  std::vector<std::string> spans;
  double before = 0;
  for (const json& span : boot.at("spans")) {
    spans.push_back(span.at("name").get<std::string>() + " " + span.at("phase").get<std::string>());
    EXPECT_LE(before, span.at("begin"));
    EXPECT_LE(span.at("begin"), span.at("end")) << spans.back();
    before = span.at("begin");
  }
  EXPECT_EQ(spans, (std::vector<std::string>{"PROCMGR init", "PROCMGR priority", "PROCMGR continue",
                                             "served checks", "served fork", "served ready",
                                             "served open", "plain checks", "plain fork",
                                             "plain ready", "PROCMGR pause"}));
  EXPECT_LE(before + 30, boot.at("end"));
}

class GeneralStatus : public GeneralTest {
 protected:
  const Asking status_{sandbox_};
};

TEST_F(GeneralStatus, RequestsAndWhatBecomesOfThem) {
  BootWith({Service("steady", {}, {{"gid", "77"}}),
            Service("stubborn", {"--ignore-term", "--mark", Mark("stubborn")},
                    {{"termTimeOut", "600000"}}),
            Service("failing", {"--exit-code", "3"}),
            {"missing", "/opt/test/missing", {}, {}},
            Service("never")});
  ASSERT_TRUE(owner_.StartApps({{"steady", {}, {}}, {"missing", {}, {}}, {"failing", {}, {}}}));
  status_.Await("steady", "running");
  status_.Await("missing", "refused missing");
  status_.Await("failing", "failed exit exit 3");
  EXPECT_EQ(status_.Brief("never"), "unknown");
  const json steady = status_.Details("steady");
  EXPECT_EQ(steady.at("owner"), "owner");
  EXPECT_EQ(steady.at("kind"), "general");
  EXPECT_EQ(steady.at("groups")[0], 77);
  EXPECT_EQ(steady.at("cores").at("kernel"), json::array({0}));
  EXPECT_EQ(status_.Details("owner").at("start_file"), kEntryFile);

  ASSERT_TRUE(second_.RestartApps({{"steady", {}, {}}}));
  status_.Await("steady", "running signal 15");
  EXPECT_EQ(status_.App("steady").at("restarts").at("count"), 1);
  ASSERT_TRUE(second_.TermApps({"steady"}));
  status_.Await("steady", "ended request second signal 15");

  ASSERT_TRUE(owner_.StartApps({{"stubborn", {}, {}}}));
  status_.Await("stubborn", "running");
  const pid_t pid = status_.App("stubborn").at("pid");
  AwaitMark("stubborn", pid);
  ASSERT_TRUE(second_.RestartApps({{"stubborn", {}, {}}}));
  status_.Await("stubborn", "restarting request second");
  ASSERT_TRUE(Kill(pid));
  status_.Await("stubborn", "running signal 9");
  const pid_t next = status_.App("stubborn").at("pid");
  AwaitMark("stubborn", next);
  ASSERT_TRUE(owner_.TermApps({"stubborn"}));
  status_.Await("stubborn", "stopping request owner signal 9");
  EXPECT_EQ(status_.App("stubborn").at("pid"), next);
  ASSERT_TRUE(Kill(next));
  status_.Await("stubborn", "ended request owner signal 9");
  EXPECT_EQ(status_.App("stubborn").at("exits").size(), 2U);

  // A base service that says that it goes, and does.
  ASSERT_TRUE(second_.ReportState(kStateGoingDown));
  status_.Await("second", "stopping request");
  ASSERT_TRUE(Kill(status_.App("second").at("pid")));
  status_.Await("second", "ended request signal 9");
}

TEST_F(GeneralStatus, WatcherHearsOfEachState) {
  BootWith({Service("steady")});
  StatusPeer watcher(status_.Path());
  EXPECT_EQ(watcher.Ask(R"({"watch":true})").at("apps").size(), 3U);
  ASSERT_TRUE(owner_.StartApps({{"steady", {}, {}}}));
  status_.Await("steady", "running");
  ASSERT_TRUE(owner_.TermApps({"steady"}));
  std::vector<std::string> states;
  while (states.empty() || states.back() != "ended") {
    const json line = watcher.ReadAnswer();
    ASSERT_EQ(Schema().Check(line, "status"), "");
    for (const json& app : line.at("apps")) {
      ASSERT_EQ(app.at("name"), "steady");
      states.push_back(app.at("state"));
    }
  }
  EXPECT_EQ(states,
            (std::vector<std::string>{"waiting", "starting", "running", "stopping", "ended"}));
}

TEST_F(StatusTest, LastBeatIsTold) {
  AgentPeer beating(sandbox_, "beating");
  Boot({Reporting("beating")});
  ASSERT_TRUE(beating.BecomeReady());
  AwaitBooted();
  EXPECT_EQ(status_.Details("beating").at("beat"), nullptr);
  const ProcMgr::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const ProcMgr::UnixAddress address(sandbox_.Outside("/run/heartbeat.sock"));
  const std::string_view name = "beating";
  ASSERT_EQ(sendto(socket.Get(), name.data(), name.size(), 0, address.Get(), address.Size()),
            static_cast<ssize_t>(name.size()));
  EXPECT_TRUE(Eventually([&] { return status_.Details("beating").at("beat").is_number(); }));
}

TEST_F(StatusTest, SelfReportedProcess) {
  sandbox_.WriteFile(kOwn, "watch_dog: {enable: false}\npmupload: {enable: true}\n");
  sandbox_.InstallProgram(ProgramPath("pmupload"), "/opt/test/pmupload");
  AgentPeer access(sandbox_, "iammgr");
  Boot({Reporting("iammgr")});
  ASSERT_TRUE(access.BecomeReady());
  AwaitBooted();
  Process guest(sandbox_, kService, {}, {{}, "guest"});
  Process tool(sandbox_, "/opt/test/pmupload",
               {"--procName=visitor", "--pid=" + std::to_string(guest.Pid())}, {{}, "tool"});
  status_.Await("visitor", "running");
  EXPECT_EQ(status_.App("visitor").at("kind"), "self");
  EXPECT_EQ(status_.App("visitor").at("pid"), guest.Pid());
  guest.Signal(SIGKILL);
  ASSERT_TRUE(guest.WaitExit().has_value());
  status_.Await("visitor", "ended");
}

TEST_F(StatusTest, SettingsAndFaultsOfTheSocket) {
  const std::string warning = "PROCMGR : the status is not told at " + Asking::kSocket;
  const struct {
    std::string settings;
    std::string obstacle;  // A file in the socket's place.
    std::size_t warnings;
    std::string mode;  // Of the socket file, with its group; empty: none is served.
  } cases[] = {
      {"", "", 0, "660 0"},
      {"status: {group: 77}\n", "", 0, "660 77"},
      {"status: {enable: false}\n", "", 0, ""},
      {"", "a file", 1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.settings + c.obstacle);
    const std::size_t before = log_.Lines().size();
    const std::size_t warnings = log_.Count(warning);
    sandbox_.WriteFile(kOwn, c.settings.empty() ? "watch_dog: {}\n" : c.settings);
    std::filesystem::remove_all(sandbox_.Outside("/run/process-manager"));
    if (!c.obstacle.empty()) {
      sandbox_.WriteFile(Asking::kSocket, c.obstacle);
    }
    Boot({Service("plain")});
    (void)AwaitBoot(before);
    EXPECT_EQ(log_.Count(warning), warnings + c.warnings);
    struct stat file {};
    std::ostringstream mode;
    if (StatusPeer(status_.Path()).Error() == 0 && stat(status_.Path().c_str(), &file) == 0) {
      mode << std::oct << (file.st_mode & 07777U) << std::dec << ' ' << file.st_gid;
    }
    EXPECT_EQ(mode.str(), c.mode);
  }
  // A killed manager's socket file doesn't stop the next one.
  sandbox_.WriteFile(kOwn, "watch_dog: {}\n");
  std::filesystem::remove_all(sandbox_.Outside("/run/process-manager"));
  for (int boot = 0; boot < 2; ++boot) {
    const std::size_t before = log_.Lines().size();
    Boot({Service("plain")});
    (void)AwaitBoot(before);
    status_.Await("plain", "running");
  }
}

TEST_F(StatusTest, ItIsThereWhileAQuickStartWaits) {
  Boot({Service("plain")}, {"true"});
  status_.AwaitServed();
  ASSERT_TRUE(WaitForKernelLog(sandbox_, "InitPriorityApps start priority apps finish"));
  EXPECT_EQ(status_.Brief("plain"), "waiting turn");
  daemon_->Signal(SIGCONT);
  status_.Await("plain", "running");
}

class HostileClients : public StatusTest {
 protected:
  // Returns when the opening that follows the restart has been given up, so that nothing is left
  // under way. Yields how long the exit took to be filed.
  milliseconds KillOne() {
    const pid_t pid = status_.App("app0").at("pid");
    const std::size_t before = log_.Lines().size();
    EXPECT_TRUE(Kill(pid));
    const auto killed = ProcMgr::SteadyNow();
    const auto filed = log_.WaitFor("SetExitStatus app0, pid=" + std::to_string(pid), before);
    EXPECT_NE(AwaitStarted("app0", before), pid);
    EXPECT_TRUE(Await("procname=app0 RegisterService failed", before));
    return filed ? std::chrono::duration_cast<milliseconds>(log_.At(*filed).at - killed)
                 : milliseconds::max();
  }
};

TEST_F(HostileClients, ChangeNothing) {
  std::vector<App> apps;
  for (int i = 0; i < 200; ++i) {
    apps.push_back(Service("app" + std::to_string(i), {}, {{"restart", "on-forever"}}));
  }
  Boot(apps);
  AwaitBooted();
  status_.Await("app199", "running");
  (void)KillOne();  // The messaging library has its threads from now on.
  const std::size_t descriptors = daemon_->Descriptors().size();
  const std::size_t threads = daemon_->ThreadCount();
  {
    std::list<StatusPeer> peers;
    for (int i = 0; i < 8; ++i) {
      // Deaf ones: some have asked for more than will be kept for them.
      EXPECT_TRUE(peers.emplace_back(status_.Path()).Send("{\"watch\":true}\n"));
      StatusPeer& flood = peers.emplace_back(status_.Path());
      while (flood.Send("{\"get\":\"status\"}\n") && !flood.AwaitHangUp(milliseconds(0))) {
      }
    }
    EXPECT_TRUE(StatusPeer(status_.Path()).Send("\x01\xff{[[[\n\n{\"watch\":"));
    for (int round = 0; round < 3; ++round) {
      EXPECT_LT(KillOne(), PatienceFactor() * milliseconds(500));
    }
  }
  // The opening's own were counted with the first ones if they weren't quite gone.
  EXPECT_TRUE(Eventually([&] { return daemon_->Descriptors().size() <= descriptors; }))
      << descriptors << ::testing::PrintToString(daemon_->Descriptors());
  EXPECT_TRUE(Eventually([&] { return daemon_->ThreadCount() <= threads; }));
}

// Whatever happens to applications, the service's thread sleeps.
TEST_F(HostileClients, WithoutClientsTheServiceSleeps) {
  Boot({Service("app0", {}, {{"restart", "on-forever"}})});
  AwaitBooted();
  ASSERT_TRUE(Await("STARTING to RUNNING appName=app0,"));
  pid_t server = 0;
  for (const pid_t thread : Threads(daemon_->Pid())) {
    server = StatusField(thread, "Name") == "status" ? thread : server;
  }
  ASSERT_NE(server, 0);
  ASSERT_TRUE(Eventually([&] { return StatusField(server, "State").starts_with("S"); }));
  const auto switches = [server] { return StatusField(server, "voluntary_ctxt_switches"); };
  const std::string before = switches();
  const pid_t pid = AwaitStarted("app0");
  const std::size_t from = log_.Lines().size();
  ASSERT_TRUE(Kill(pid));
  ASSERT_TRUE(Await("procname=app0 RegisterService failed", from));
  EXPECT_EQ(switches(), before);
}

}  // namespace
}  // namespace PmTest
