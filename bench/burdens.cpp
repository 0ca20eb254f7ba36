#include "bench/burdens.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iterator>
#include <optional>
#include <thread>
#include <utility>

#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "bench/listed_program.h"
#include "bench/restarted_service.h"
#include "message/serialization.h"
#include "message/upload_msg.h"
#include "sandbox/agent_peer.h"
#include "sandbox/process_table.h"
#include "sandbox/raw_peer.h"
#include "sandbox/system_error.h"

namespace PmBench {
namespace {

using PmSandbox::AgentPeer;
using PmSandbox::App;
using PmSandbox::Demand;
using PmSandbox::Keys;
using PmSandbox::LogReader;
using PmSandbox::RawPeer;
using PmSandbox::Sandbox;

const std::string kName = "burden";

// Sends what there is room for, `most` packets at most.
void Stuff(const RawPeer& peer, const std::string& packet, int most) {
  while (most > 0 &&
         send(peer.Fd(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    --most;
  }
}

// A reporting service that the burden plays.
class Played : public Burden {
 public:
  Played(const Sandbox& sandbox, std::string name)
      : sandbox_(sandbox), name_(std::move(name)), marks_(sandbox, name_) {
    peer_.emplace(sandbox_, name_);
  }
  std::vector<App> Services() override { return {Service({})}; }
  void Serve() override { Demand(peer_->BecomeReady(), name_ + " gets no channel"); }

 protected:
  [[nodiscard]] App Service(Keys keys) const {
    keys.emplace_back("isReporting", "true");
    return RestartedService(name_, marks_, keys);
  }

  const Sandbox& sandbox_;
  const std::string name_;
  Marks marks_;
  std::optional<AgentPeer> peer_;
};

// Its successor doesn't serve.
class EndlessOpening : public Played {
 public:
  EndlessOpening(const Sandbox& sandbox, LogReader&) : Played(sandbox, kName) {}
  void Renew() override {
    peer_.reset();
    Restart(marks_);
  }
  void End() override {
    peer_.emplace(sandbox_, name_);
    Serve();
  }
};

// Services that have promised no channel, and serve none: more of them than get an opening at once.
class SilentOpenings : public Burden {
 public:
  SilentOpenings(const Sandbox& sandbox, LogReader&) {
    for (int i = 0; i < kServices; ++i) {
      marks_.emplace_back(sandbox, kName + std::to_string(i));
    }
  }
  std::vector<App> Services() override {
    std::vector<App> apps;
    for (const Marks& marks : marks_) {
      apps.push_back(RestartedService(kName + std::to_string(apps.size()), marks, {}));
    }
    return apps;
  }
  void Renew() override {
    for (const Marks& marks : marks_) {
      Restart(marks);
    }
  }

 private:
  static constexpr int kServices = 6;
  std::vector<Marks> marks_;
};

// The program has grown when its service ends, so each attempt to start it works it out anew.
class LongDigest : public Burden {
 public:
  LongDigest(const Sandbox& sandbox, LogReader& log)
      : log_(log), marks_(sandbox, kName), program_(sandbox) {}
  std::vector<App> Services() override {
    App app = RestartedService(kName, marks_, {});
    app.binPath = ListedProgram::kPath;
    return {app};
  }
  void Renew() override {
    if (std::exchange(isUnderWay_, true)) {
      return;
    }
    program_.Grow();
    const std::size_t before = log_.Lines().size();
    KillLast(marks_);
    Demand(log_.WaitFor("owner=" + kName + ", pid=", before).has_value(), "its end isn't seen");
  }
  void End() override {
    const std::size_t before = marks_.Await(1).size();
    program_.Shrink();
    (void)marks_.Await(before + 1);
  }

 private:
  LogReader& log_;
  Marks marks_;
  const ListedProgram program_;
  bool isUnderWay_ = false;
};

// More agents than there are threads to serve them ask for that program to be started.
class SlowRequests : public Burden {
 public:
  SlowRequests(const Sandbox& sandbox, LogReader&) : marks_(sandbox, kName), program_(sandbox) {
    for (int i = 0; i < kAgents; ++i) {
      agents_.push_back(std::make_unique<AgentPeer>(sandbox, kName + std::to_string(i)));
      sandbox.WriteFile(
          Configuration(i),
          PmSandbox::ServiceFile({{"app-" + std::to_string(i), ListedProgram::kPath, {}, {}}}));
    }
  }
  std::vector<App> Services() override {
    std::vector<App> apps;
    for (const auto& agent : agents_) {
      const std::string path = Configuration(static_cast<int>(apps.size()));
      apps.push_back(RestartedService(agent->Name(), marks_,
                                      {{"isReporting", "true"}, {"startupEntryPath", path}}));
    }
    return apps;
  }
  void Serve() override {
    for (const auto& agent : agents_) {
      Demand(agent->BecomeReady() && agent->LoadStartupCfg() == "0", "no channel");
    }
  }
  void Renew() override {
    if (!std::exchange(isUnderWay_, true)) {
      program_.Grow();
      for (std::size_t i = 0; i < agents_.size(); ++i) {
        Demand(agents_[i]->StartApps({{"app-" + std::to_string(i), {}, {}}}), "no channel");
      }
    }
  }
  void End() override {
    program_.Shrink();
    for (const auto& agent : agents_) {
      Demand(agent->Query({"nobody"}).size() == 1, "a request doesn't end");
    }
  }

 private:
  static constexpr int kAgents = 5;
  static std::string Configuration(int i) { return "/run/sandbox/" + std::to_string(i) + ".yaml"; }
  Marks marks_;
  const ListedProgram program_;
  std::vector<std::unique_ptr<AgentPeer>> agents_;
  bool isUnderWay_ = false;
};

// Eight agents and the access manager ask, or are told, and don't read.
class DeafPeers : public Burden {
 public:
  DeafPeers(const Sandbox& sandbox, LogReader&) : sandbox_(sandbox) {
    for (const std::string& name : Names()) {
      marks_.emplace_back(sandbox, name);
      servers_.push_back(std::make_unique<PmSandbox::RawServer>(sandbox, name, 0));
    }
  }
  std::vector<App> Services() override {
    std::vector<App> apps;
    for (const std::string& name : Names()) {
      apps.push_back(RestartedService(name, marks_[apps.size()], {{"isReporting", "true"}}));
    }
    return apps;
  }
  void Serve() override {
    for (const auto& server : servers_) {
      peers_.push_back(PmSandbox::AcceptReady(*server));
    }
  }
  // Far more answers than a socket holds.
  void Renew() override {
    ProcMgr::Message::RequestMsg frame;
    Demand(ProcMgr::Serialization::ProcMgrPackQueryAppState({"nobody"}, frame), "a query");
    const std::string query = PmSandbox::EncodePacket(PmSandbox::FramePacket(frame));
    for (const RawPeer& peer : peers_) {
      Stuff(peer, query, 100);
    }
  }
  // The channels are cut, and opened again.
  void End() override {
    peers_.clear();
    servers_.clear();
    for (const std::string& name : Names()) {
      good_.push_back(std::make_unique<AgentPeer>(sandbox_, name));
      Demand(good_.back()->BecomeReady(), "no channel");
    }
  }

 private:
  static std::vector<std::string> Names() {
    std::vector<std::string> names;
    names.reserve(9);
    for (int i = 0; i < 8; ++i) {
      names.push_back(kName + std::to_string(i));
    }
    names.emplace_back("iammgr");
    return names;
  }

  const Sandbox& sandbox_;
  std::vector<Marks> marks_;
  std::vector<std::unique_ptr<PmSandbox::RawServer>> servers_;
  std::vector<RawPeer> peers_;
  std::vector<std::unique_ptr<AgentPeer>> good_;
};

// 40 clients of the upload server say nothing, and 40 ask without reading the answers.
class UploadClients : public Burden {
 public:
  UploadClients(const Sandbox& sandbox, LogReader&) : sandbox_(sandbox) {
    sandbox.WriteSettings("watch_dog: {enable: false}\npmupload: {enable: true}\n");
    std::string groups = "sharepool_groups:\n";
    for (int i = 1; i < 1000; ++i) {
      groups += "  - group_" + std::to_string(i) + ": {mem_size: 4}\n";
    }
    sandbox.WriteFile("/etc/sharepool/groups.yaml", groups);
  }
  void Renew() override {
    while (clients_.size() < 2 * kEach) {
      auto client = PmSandbox::ConnectRaw(sandbox_, "PROCMGR");
      Demand(client.has_value() && client->Send(PmSandbox::MakePacket(PmSandbox::kHello, 0, "x")),
             "no connection");
      clients_.push_back(std::move(*client));
    }
    PmUpload::LoadAppInfo info;
    info.pidAppName = "asker";
    info.binPath = "/bin/asker";
    info.pid = 1;
    info.alreadyReported = true;
    PmUpload::UploadMsg msg;
    Demand(PmUpload::PackInfoRequest(info, msg), "a request");
    const std::string ask = PmSandbox::EncodePacket(PmSandbox::MakePacket(
        PmSandbox::kRequest, 1, {reinterpret_cast<const char*>(&msg), sizeof(msg)}));
    for (std::size_t i = 0; i < kEach; ++i) {
      Stuff(clients_[i], ask, 50);
    }
  }
  void End() override { clients_.clear(); }

 private:
  static constexpr std::size_t kEach = 40;
  const Sandbox& sandbox_;
  std::vector<RawPeer> clients_;
};

// As many clients as the status service takes say half a line, watch, or ask, and never read.
class StatusClients : public Burden {
 public:
  StatusClients(const Sandbox& sandbox, LogReader&)
      : path_(sandbox.Outside("/run/process-manager/status.sock")) {}
  void Renew() override {
    static constexpr std::string_view kTexts[] = {"{\"get\":", "{\"watch\":true}\n",
                                                  "{\"get\":\"status\"}\n",
                                                  "{\"get\":\"boot\"}\n\xff[[\n"};
    clients_.clear();  // Some have been closed for what they did.
    while (clients_.size() < kClients) {
      ProcMgr::UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      const ProcMgr::UnixAddress address(path_);
      PmSandbox::CheckStep(connect(client.Get(), address.Get(), address.Size()) == 0, "connect");
      clients_.push_back(std::move(client));
    }
    for (std::size_t i = 0; i < kClients; ++i) {
      const std::string_view text = kTexts[i % std::size(kTexts)];
      for (int times = i % std::size(kTexts) == 0 ? 1 : 300; times > 0; --times) {
        (void)send(clients_[i].Get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      }
    }
  }
  void End() override { clients_.clear(); }

 private:
  static constexpr std::size_t kClients = 16;
  const std::string path_;
  std::vector<ProcMgr::UniqueFd> clients_;
};

// Nobody reads the log, and a service has it written to until nothing more fits.
class FullLog : public Played {
 public:
  FullLog(const Sandbox& sandbox, LogReader& log) : Played(sandbox, kName), log_(log) {}
  void Renew() override {
    if (std::exchange(isFull_, true)) {
      return;
    }
    log_.Pause();
    for (int i = 0; i < 6000; ++i) {
      Demand(peer_->SendPacket(PmSandbox::MakePacket(PmSandbox::kRequest, 1, "")), "send");
    }
  }
  void End() override { log_.Resume(); }

 private:
  LogReader& log_;
  bool isFull_ = false;
};

// The configuration of a service, so long that reading it takes a while.
class LongConfiguration : public Played {
 public:
  explicit LongConfiguration(const Sandbox& sandbox) : Played(sandbox, kName) {
    constexpr int kApplications = 3000;
    std::vector<App> apps;
    apps.reserve(kApplications);
    for (int i = 0; i < kApplications; ++i) {
      apps.push_back({"application-" + std::to_string(i), kServicePath, {}, {}});
    }
    sandbox.WriteFile(kPath, PmSandbox::ServiceFile(apps));
  }
  std::vector<App> Services() override { return {Service({{"startupEntryPath", kPath}})}; }

 private:
  static constexpr const char* kPath = "/run/sandbox/long.yaml";
};

// One reload follows the other.
class EndlessReload : public LongConfiguration {
 public:
  EndlessReload(const Sandbox& sandbox, LogReader&) : LongConfiguration(sandbox) {}
  ~EndlessReload() override { Stop(); }
  void Renew() override {
    if (!asker_.joinable()) {
      asker_ = std::thread([this] {
        while (!isOver_ && peer_->LoadStartupCfg({}, true) == "0") {
        }
      });
    }
  }
  void End() override { Stop(); }

 private:
  void Stop() {
    isOver_ = true;
    if (asker_.joinable()) {
      asker_.join();
    }
  }

  std::atomic<bool> isOver_ = false;
  std::thread asker_;
};

// Its process ends while a request of it is being worked on.
class ClosingInCallback : public LongConfiguration {
 public:
  ClosingInCallback(const Sandbox& sandbox, LogReader& log)
      : LongConfiguration(sandbox), log_(log) {}
  void Renew() override {
    End();
    std::vector<ProcMgr::Serialization::PackedItem> packed;
    ProcMgr::Serialization::PieceList frames;
    Demand(ProcMgr::Serialization::ProcMgrPackMatchDataAndPathRequest({{}, "/"}, packed) &&
               ProcMgr::Serialization::ProcMgrCombinePiecesMsg(
                   ProcMgr::Message::RequestType::RELOAD_STARTUP_CFG, packed, frames),
           "a request");
    Demand(peer_->Send(frames.at(0)), "no channel");
    ++closings_;
    Demand(log_.WaitForCount("PM revice RELOAD_STARTUP_CFG", closings_), "a reload doesn't begin");
    (void)marks_.Await(closings_);  // The channel can be open before the process's main.
    KillLast(marks_);
  }
  void End() override {
    Demand(log_.WaitForCount("ReLoadStartCfgInfo finish", closings_), "a reload doesn't end");
    if (closings_ > 0) {
      Serve();
    }
  }

 private:
  LogReader& log_;
  std::size_t closings_ = 0;
};

constexpr BurdenKind kKinds[] = {
    {"nothing else is under way",
     [](const Sandbox&, LogReader&) { return std::make_unique<Burden>(); }},
    {"a reporting service never serves", &MakeBurden<EndlessOpening>},
    {"six services that don't report never serve", &MakeBurden<SilentOpenings>},
    {"a program of 1 GB is checked", &MakeBurden<LongDigest>},
    {"5 agents start a program of 1 GB", &MakeBurden<SlowRequests>},
    // Up to 1 MiB of answers is queued for each that doesn't read.
    {"8 agents and iammgr don't read", &MakeBurden<DeafPeers>, 16'384},
    {"40 uploaders are silent and 40 don't read", &MakeBurden<UploadClients>, 49'152},
    {"16 clients of the status don't read", &MakeBurden<StatusClients>},
    {"the log is full", &MakeBurden<FullLog>},
    // The configuration itself, and what each thread of the library has read one with.
    {"a configuration is reloaded", &MakeBurden<EndlessReload>, 40'960},
    {"a channel closes in its callback", &MakeBurden<ClosingInCallback>, 40'960},
};

}  // namespace

std::span<const BurdenKind> AllBurdens() {
  static const std::vector<BurdenKind> all = [] {
    std::vector<BurdenKind> kinds;
    for (const std::span<const BurdenKind> each :
         {std::span<const BurdenKind>(kKinds), OutsideBurdens()}) {
      std::copy(each.begin(), each.end(), std::back_inserter(kinds));
    }
    return kinds;
  }();
  return all;
}

}  // namespace PmBench
