// The fixture of the tests of general applications: three base services, all played by the test.
#ifndef TESTS_SCENARIO_GENERAL_TEST_H
#define TESTS_SCENARIO_GENERAL_TEST_H

#include "sandbox/agent_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {

// "owner" has the given applications in its start-up configuration and loads them; "second" has
// none; "iammgr" hears of everything.
class GeneralTest : public ScenarioTest {
 protected:
  static constexpr const char* kEntryFile = "/run/sandbox/owner.yaml";

  // Returns with all three ready, the reports of their own starts taken.
  void BootWith(const std::vector<App>& apps) {
    sandbox_.WriteFile(kEntryFile, ServiceFile(apps));
    Boot({Reporting("iammgr"),
          Reporting("owner", {{"dependList", "[iammgr]"}, {"startupEntryPath", kEntryFile}}),
          Reporting("second", {{"dependList", "[iammgr]"}})});
    ASSERT_TRUE(iammgr_.BecomeReady() && owner_.BecomeReady() && second_.BecomeReady());
    AwaitBooted();
    ASSERT_EQ(iammgr_.NextReports(2), (std::vector<std::string>{"owner 0", "second 0"}));
    ASSERT_EQ(owner_.LoadStartupCfg(), "0");
  }

  // Expects these to be the next reports that `peer` gets, and iammgr with it: "NAME STATE" each.
  void ExpectBoth(AgentPeer& peer, const std::vector<std::string>& reports) {
    EXPECT_EQ(peer.NextReports(reports.size()), reports);
    EXPECT_EQ(iammgr_.NextReports(reports.size()), reports);
  }

  // The same for one report, which it yields.
  ProcMgr::Message::AppStateInfo ExpectBoth(AgentPeer& peer, const std::string& report) {
    const auto own = peer.NextReport();
    const auto general = iammgr_.NextReport();
    if (!own.has_value() || !general.has_value()) {
      ADD_FAILURE() << report << " hasn't come";
      return {};
    }
    EXPECT_EQ(own->appName + " " + std::to_string(own->state), report);
    EXPECT_EQ(general->appName + " " + std::to_string(general->state), report);
    EXPECT_EQ(own->pid, general->pid);
    EXPECT_EQ(own->gid, general->gid);
    EXPECT_EQ(own->eioFlag, general->eioFlag);
    return *own;
  }

  // The file in which an application says with --mark that it is up.
  static std::string Mark(const std::string& name) { return "/run/sandbox/mark." + name; }

  void AwaitMark(const std::string& name, pid_t pid) {
    ASSERT_TRUE(Eventually([&] {
      return ("\n" + sandbox_.ReadFile(Mark(name))).find("\n" + std::to_string(pid) + " ") !=
             std::string::npos;
    }));
  }

  // Asks for an end that is answered at once, and expects nobody to have got anything before it.
  void ExpectNothingElse() {
    for (AgentPeer* const peer : {&owner_, &second_}) {
      ASSERT_TRUE(peer->TermApps({"sentinel"}));
      ExpectBoth(*peer, std::vector<std::string>{"sentinel 3"});
    }
    for (const AgentPeer* const peer : {&owner_, &second_, &iammgr_}) {
      EXPECT_EQ(peer->PendingReports(), 0U) << peer->Name();
    }
  }

  AgentPeer iammgr_{sandbox_, "iammgr"};
  AgentPeer owner_{sandbox_, "owner"};
  AgentPeer second_{sandbox_, "second"};
};

}  // namespace PmTest

#endif  // TESTS_SCENARIO_GENERAL_TEST_H
