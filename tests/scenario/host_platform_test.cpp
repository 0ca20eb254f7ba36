// What the platform is told: share pool groups and fault sensors.

#include "sandbox/agent_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

std::string ReportFile(const std::string& name) {
  return "/run/sandbox/" + name;
}

App Reporter(const std::string& name) {
  return {name, "/opt/test/test-service", {"--serve", name, "--report", ReportFile(name)}, {}};
}

// One that starts before the base services, with groups of its own.
App PriorityReporter(const std::string& name, const std::string& groups) {
  App app = Reporter(name);
  app.keys = {{"startupPriority", "1"}, {"sharepoolGroups", groups}};
  return app;
}

// A base service that owns the applications of the entry file.
App Owner(const std::string& name, const std::string& entryFile) {
  App app = Reporter(name);
  app.keys = {{"startupEntryPath", entryFile}};
  return app;
}

class SharePools : public ScenarioTest {
 protected:
  // The group's record: "PID VALUE" for each process that the platform was told of.
  std::vector<std::string> Members(const std::string& group) const {
    std::vector<std::string> members;
    std::istringstream lines(sandbox_.ReadFile("/run/plat/group/" + group));
    for (std::string line; std::getline(lines, line);) {
      members.push_back(line);
    }
    return members;
  }
};

TEST_F(SharePools, MembersGetTheirGroupsAndOthersGetNone) {
  sandbox_.WriteFile("/etc/sharepool/pools.yaml",
                     "sharepool_groups:\n  - CAMERA: {mem_size: 64}\n  - RESULT: {mem_size: 8}\n"
                     "  - IDLE: {mem_size: 1}\nadmin_pro_lists: [ventrix, other]\n");
  // Of this application's list, two entries are wrong.
  sandbox_.WriteFile(
      "/run/sandbox/ventrix.yaml",
      ServiceFile({PriorityReporter(
          "navi",
          "[{groupName: NOWHERE, permission: rw}, {groupName: CAMERA, permission: ro}, "
          "{groupName: RESULT}, {groupName: IDLE, permission: sometimes}]")}));
  // Another owner's applications take no part.
  sandbox_.WriteFile(
      "/run/sandbox/other.yaml",
      ServiceFile({PriorityReporter("radio", "[{groupName: CAMERA, permission: ro}]")}));
  // The list of a base service doesn't count.
  App em = Reporter("EM");
  em.keys = {{"sharepoolGroups", "[{groupName: CAMERA, permission: ro}]"},
             {"restart", "on-forever"}};
  Boot({Owner("ventrix", "/run/sandbox/ventrix.yaml"), em,
        Owner("other", "/run/sandbox/other.yaml")});
  AwaitBooted();

  const auto report = [&](const char* name) { return AwaitReport(sandbox_, ReportFile(name)); };
  const ServiceReport admin = report("ventrix");
  EXPECT_EQ(admin.Get("env.SHAREGROUP_PRECONFIG"), "1");
  EXPECT_EQ(admin.Get("env.SHAREPOOL_GROUP_NAME"), "CAMERA#RESULT#IDLE#DEFAULT_MEM_GROUP");
  const ServiceReport plain = report("EM");
  EXPECT_EQ(plain.Get("env.SHAREGROUP_PRECONFIG"), "1");
  EXPECT_EQ(plain.Get("env.SHAREPOOL_GROUP_NAME"), "DEFAULT_MEM_GROUP");
  const ServiceReport owned = report("navi");
  EXPECT_EQ(owned.Get("env.SHAREGROUP_PRECONFIG"), "1");
  EXPECT_EQ(owned.Get("env.SHAREPOOL_GROUP_NAME"), "CAMERA#RESULT");
  for (const char* name : {"other", "radio"}) {
    EXPECT_FALSE(report(name).Has("env.SHAREGROUP_PRECONFIG")) << name;
    EXPECT_FALSE(report(name).Has("env.SHAREPOOL_GROUP_NAME")) << name;
  }

  const std::string adminPid = admin.Get("pid");
  const std::string ownedPid = owned.Get("pid");
  // In the order of the starts.
  EXPECT_THAT(Members("CAMERA"), ElementsAre(ownedPid + " 2", adminPid + " 7"));
  EXPECT_THAT(Members("RESULT"), ElementsAre(ownedPid + " 0", adminPid + " 7"));
  EXPECT_THAT(Members("IDLE"), ElementsAre(adminPid + " 7"));
  EXPECT_THAT(Members("DEFAULT_MEM_GROUP"),
              ElementsAre(plain.Get("pid") + " 14", adminPid + " 15"));
  // Every start counts, and nothing takes the record of the first away.
  ASSERT_TRUE(Kill(plain.Pid()));
  EXPECT_TRUE(Eventually([&] { return Members("DEFAULT_MEM_GROUP").size() == 3; }));
  EXPECT_FALSE(std::filesystem::exists(sandbox_.Outside("/run/plat/group/NOWHERE")));

  EXPECT_TRUE(
      AwaitMessage("CheckSharepoolGroupCfg faild groupName=NOWHERE is not legal;"
                   "CheckSharepoolGroupCfg faild permission=sometimes is not legal;"));
}

class FaultSensor : public ScenarioTest {
 protected:
  static constexpr const char* kOn = "0";
  static constexpr const char* kOff = "2";
};

// The test plays the service's end of the channel, so that it decides when the report comes.
TEST_F(FaultSensor, IsOnFromTheEndOfTheServiceToItsNextReport) {
  // A place that can't be bound keeps the heartbeats out, which move the sensor at a time of their
  // own.
  std::filesystem::create_directories(sandbox_.Outside("/run/heartbeat.sock"));
  AgentPeer iammgr(sandbox_, "iammgr");
  Boot({Reporting("iammgr", {{"restart", "on-forever"}})});
  ASSERT_TRUE(iammgr.AwaitChannel());
  ASSERT_TRUE(Await("PROCMGR: waiting for baseApp=iammgr reported state"));
  EXPECT_EQ(Sensor("iammgr"), "");
  ASSERT_TRUE(iammgr.ReportState(kStateReady));
  ASSERT_TRUE(AwaitSensor("iammgr", kOff));
  ASSERT_TRUE(Await("PROCMGR : EnableWatchDog flag="));

  const std::size_t before = log_.Lines().size();
  ASSERT_TRUE(Kill(AwaitStarted("iammgr")));
  ASSERT_TRUE(AwaitSensor("iammgr", kOn));
  ASSERT_TRUE(iammgr.AwaitChannel());
  ASSERT_TRUE(Await("state=STARTING restart success", before));
  // That it runs again is not enough.
  EXPECT_EQ(Sensor("iammgr"), kOn);
  ASSERT_TRUE(iammgr.ReportState(kStateReady));
  EXPECT_TRUE(AwaitSensor("iammgr", kOff));
}

TEST_F(FaultSensor, StaysOnWhenTheServiceIsGoneForGoodAndKnowsNoOtherName) {
  const auto failing = [](const std::string& name, const char* nodeType) {
    return Service(name, {"--exit-code", "3"}, {{"nodeType", nodeType}});
  };
  Boot({failing("proc_launcher", "0"),
        failing("iammgr", "7"),
        failing("stranger", "0"),
        {"missing", "/opt/test/missing", {}, {}}});
  (void)AwaitBoot();
  for (const std::string name : {"proc_launcher", "iammgr", "stranger"}) {
    ASSERT_TRUE(Await("PROCMGR : Process " + name + " removed from the list of executedBaseApp_"));
  }
  EXPECT_EQ(Sensor("proc_launcher"), kOn);
  EXPECT_EQ(Sensor("iammgr"), "");
  EXPECT_EQ(Sensor("stranger"), "");
  EXPECT_EQ(Sensor("missing"), "");
}

TEST_F(FaultSensor, ComesOnIfTheStartItselfFails) {
  Boot({{"iammgr", "/opt/test/missing", {}, {}}});
  (void)AwaitBoot();
  EXPECT_EQ(Sensor("iammgr"), kOn);
}

}  // namespace
}  // namespace PmTest
