#include <cstdio>
#include <string>

#include "sandbox/agent_peer.h"
#include "torture/require.h"
#include "torture/runs.h"
#include "torture/stage.h"

namespace PmTorture {
namespace {

using PmSandbox::AgentPeer;
using PmSandbox::RawPacket;

bool IsServed(AgentPeer& agent) {
  return agent.Query({"app"}).size() == 1;
}

// An agent of another version says what this manager doesn't know, and is served as before.
void SayUnknown(AgentPeer& agent, const std::string& data) {
  Require(agent.SendPacket(PmSandbox::MakePacket(PmSandbox::kRequest, 0, data)),
          "an agent of another version isn't cut off");
  Require(IsServed(agent), "an agent of another version is served");
}

// A channel whose peer speaks another wire is closed, and opened again for the one that takes the
// peer's place.
void SpeakAnotherWire(Stage& stage, AgentPeer& agent, std::uint16_t version) {
  RawPacket packet = PmSandbox::FramePacket(PmSandbox::StateFrame(PmSandbox::kStateReady));
  packet.version = version;
  const std::size_t before = stage.Log().Lines().size();
  Require(agent.SendPacket(packet), "a channel lives until the packet is read");
  Require(agent.AwaitClosed(), "a channel with another wire is closed");
  Require(stage.Log().WaitFor("unknown version", before).has_value(), "the log says why");
  Require(IsServed(stage.AccessManager()), "everybody else is served meanwhile");
  Require(agent.BecomeReady() && IsServed(agent), "the channel is opened again, and serves");
}

void MeetOtherVersions(Stage& stage) {
  AgentPeer& newer = stage.Agents()[0];
  AgentPeer& older = stage.Agents()[1];
  using ProcMgr::Message::RequestType;
  for (const std::uint32_t type : {11U, 4096U, 0xffffffffU}) {
    SayUnknown(newer, PmSandbox::FrameBytes(
                          PmSandbox::TextFrame(static_cast<RequestType>(type), "app#0")));
  }
  const std::string frame = PmSandbox::FrameBytes(PmSandbox::StateFrame(PmSandbox::kStateReady));
  SayUnknown(newer, frame + std::string(64, '\0'));
  SayUnknown(older, frame.substr(0, frame.size() / 2));
  SpeakAnotherWire(stage, newer, 2);
  SpeakAnotherWire(stage, older, 0);
}

}  // namespace

void RunUpgrade(const Options&) {
  constexpr std::size_t kTimes = 10;
  Stage stage(
      2,
      {Stage::Sleeper("service", {{"restart", "on-forever"}, {"envArgv", "{PROC_NAME: service}"}})},
      {Stage::Sleeper("app")});
  MeetOtherVersions(stage);
  AgentPeer& agent = stage.Agents()[0];
  for (std::size_t left = 1; left <= kTimes; ++left) {
    Require(agent.StartApps({{"app", {}, {}}}), "a request is taken");
    Require(agent.NextReports(1) == std::vector<std::string>{"app 0"},
            "the application is started");
    Require(stage.AccessManager().NextReports(1).size() == 1, "iammgr hears of it");
    stage.ReplaceManager();
    // It supervises none of its predecessors' children, and tells of those that run under a
    // service's name.
    Require(stage.Log().Count("still runs as base app=service,") == left,
            "the new manager tells of each service that runs already");
    Require(agent.Query({"app"}) == std::map<std::string, int>{{"app", 1}},
            "it doesn't take an old application for its own");
    Require(stage.Log().Count("can not find app") == 0, "no exit of a stranger reaches it");
  }
  std::printf(
      "upgrade: agents of two other versions; killed and started again %zu times over what its "
      "predecessors had left\n",
      kTimes);
}

}  // namespace PmTorture
