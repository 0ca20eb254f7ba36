// A whole manager from its boot to its orderly stop, and who talks to it: services that serve or
// don't, say that they are ready or don't, ask for applications in frames of every kind, fall
// silent, cut their channels and end, in any order and in the middle of everything. Input: a byte a
// step, then what the step needs.
#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/immortal.h"
#include "base/names.h"
#include "core/app_lists.h"
#include "core/faults.h"
#include "core/process_manager.h"
#include "message/cut_channels.h"
#include "message/name_table.h"
#include "message/openings.h"
#include "status/memory.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/manager_frames.h"
#include "tests/fuzz/manager_post.h"
#include "tests/fuzz/manager_stage.h"
#include "tests/fuzz/manager_world.h"
#include "tests/fuzz/nexio_stage.h"
#include "tests/support/temp_folder.h"

namespace PmTest {

namespace {

constexpr const char* kServices = R"(applications:
  - {appName: iammgr, binPath: /bin/sh, uid: 0, gid: 0, isReporting: true, restart: on-failure,
     startupEntryPath: access.yaml}
  - {appName: ventrix, binPath: /bin/sh, uid: 0, gid: 0, isReporting: true, restart: on-forever,
     dependList: [iammgr], startupEntryPath: data.yaml}
  - {appName: once, binPath: /bin/sh, uid: 0, gid: 0, isReporting: true, dependList: [iammgr]}
  - {appName: quiet, binPath: /bin/sh, uid: 0, gid: 0, restart: on-failure}
  - {appName: absent, binPath: /absent, uid: 0, gid: 0}
)";
constexpr const char* kAccessApps = R"(applications:
  - {appName: early, binPath: /bin/sh, uid: 0, gid: 0, startupPriority: 1, termTimeOut: 100}
  - {appName: job, binPath: /bin/sh, uid: 0, gid: 0, termTimeOut: 0, restart: on-until-succeed}
  - {appName: stubborn, binPath: /bin/sh, uid: 0, gid: 0, termTimeOut: 60, isForceTerm: false}
)";
constexpr const char* kDataApps = R"(applications:
  - {appName: "work${[0-9]}", binPath: "/bin/${[a-z]+}", uid: 0, gid: 0, termTimeOut: 100,
     arguments: ["${--[a-z]+}"], envArgv: {KEY: "${low|high}"}}
  - {appName: chosen, binPath: /bin/sh, uid: 0, gid: 0, match: {board: large}}
  - {appName: stray, binPath: /absent, uid: 0, gid: 0}
)";

// The base-service file, with the others beside it.
const std::string& BaseServices() {
  static const TempFolder folder;
  static const std::string path = [] {
    (void)folder.Write("access.yaml", kAccessApps);
    (void)folder.Write("data.yaml", kDataApps);
    return folder.Write("base.yaml", kServices);
  }();
  return path;
}

const bool isWatched = [] {
  ProcMgr::ForbidWaitsUnderListLocks();
  return true;
}();

template <typename T>
void Renew() {
  std::destroy_at(&Immortal<T>());
  std::construct_at(&Immortal<T>());
}

// Requests for applications, of which each entry is answered.
bool HasEntries(RequestType type) {
  return type == RequestType::START_APP || type == RequestType::RESTART_APP ||
         type == RequestType::TERM_APP;
}

// What a stop leaves to be heard.
bool IsReport(RequestType type) {
  return type == RequestType::BASESERVICE_STATE_REPORT || type == RequestType::APP_EXECUTION_REPORT;
}

bool IsLoad(RequestType type) {
  return type == RequestType::LOAD_STARTUP_CFG || type == RequestType::RELOAD_STARTUP_CFG;
}

}  // namespace

World::World(FuzzBytes input) : input_(input), post_(stage_) {
  managerStage = &stage_;
  stage_.idle = [this] { Idle(); };
  Renew<NameTable>();
  Renew<ProcMgr::Openings>();
  Renew<ProcMgr::CutChannels>();
  Renew<ProcMgr::Status::Memory>();
}

void World::Play() {
  {
    ProcMgr::ProcessManager manager(BaseServices());
    manager.Run();
    WindUp();
    Require(post_.peers.empty() && Immortal<NameTable>().Closing().empty());
  }
  Require(stage_.jobs.empty() && !stage_.KeeperTurn() && post_.IsAllTold());
}

// The main thread waits for something. Behind the input everything comes to its end.
void World::Idle() {
  if (!input_.IsEmpty()) {
    const std::uint8_t step = input_.Byte();
    Step(step % 16, step / 16);
  } else {
    constexpr int kMostTurns = 5000;
    Require(++idleTurns_ < kMostTurns);
    if (!isStopAsked_) {
      AskForStop();
    }
    WindUp();
  }
  CheckRecords();
  CheckChannels();
}

void World::Step(unsigned what, std::size_t which) {
  constexpr std::array kFailures = {ProcMgr::kNexioDenied, ProcMgr::kNexioTimeout,
                                    ProcMgr::kNexioBroken, ProcMgr::kNexioBusy};
  constexpr std::array kRequests = {RequestType::BASESERVICE_STATE_REPORT,
                                    RequestType::START_APP,
                                    RequestType::RESTART_APP,
                                    RequestType::TERM_APP,
                                    RequestType::QUERY_APP_STATE,
                                    RequestType::LOAD_STARTUP_CFG};
  switch (what) {
    case 0:
      return Open(which, 0);
    case 1:
      return Open(which / kFailures.size(), kFailures[which % kFailures.size()]);
    case 2:
      return EndChild(which);
    case 3:
      return Reap();
    case 4:
      return Pass();
    case 5:
      (void)stage_.KeeperTurn();
      return;
    case 6:
      return Cut(which);
    case 7:
      return SmallStep(which);
    case 8:
      return Ask(which, MakeFrame(input_, static_cast<RequestType>(input_.Byte() % 12)));
    case 9:
      return Ask(which, std::string(input_.Take(input_.Byte())));
    default:
      return Ask(which, MakeFrame(input_, kRequests[what - 10]));
  }
}

// What one of the channels, or the machine, does aside.
void World::SmallStep(std::size_t which) {
  constexpr std::array kAnswers = {0, ProcMgr::kNexioBusy, ProcMgr::kNexioBroken};
  int fd = 0;
  switch (which) {
    case 0:
    case 1:
    case 2:
      if (Peer* const peer = Choose(input_.Byte(), fd)) {
        peer->answer = kAnswers[which];
      }
      return;
    case 3:
      if (Peer* const peer = Choose(input_.Byte(), fd)) {
        peer->begun = MakeFrame(input_, static_cast<RequestType>(input_.Byte() % 10));
      }
      return;
    case 4:
      stage_.isSpawnRefused = true;
      return;
    case 5:
      stage_.now += std::chrono::milliseconds(100);
      return;
    case 6:
      stage_.now += std::chrono::seconds(70);
      return;
    case 7:
      for (int i = 0; i < ProcMgr::Outbox::kTries; ++i) {
        (void)stage_.KeeperTurn();
      }
      return;
    case 8: {
      const std::string name = MakeName(input_);
      (void)ProcMgr::OnHeartBeatNotify(name.c_str(), name.size(), 0, input_.Byte() % 3);
      return;
    }
    case 9:
      return Receive(NexioStage::kServer, &ProcMgr::ProcMgrMaster::ProcMgrMasterRequstMsgHandler,
                     MakeFrame(input_, RequestType::QUERY_APP_STATE));
    case 10:
      return AskForStop();
    case 11:  // From here on numbers of processes are used again.
      stage_.nextPid = ManagerStage::kFirstPid;
      return;
    default:
      return;
  }
}

void World::AskForStop() {
  isStopAsked_ = true;
  stage_.isSignalPending = true;
  stage_.TakeTurn(Turn::kSignals);
}

// Whatever waits for a peer or a child is over: nobody serves, and who was told to end does.
void World::WindUp() {
  while (!stage_.jobs.empty()) {
    Open(0, ProcMgr::kNexioTimeout);
  }
  const std::set<int> open = Stage().open;
  std::for_each(open.begin(), open.end(), [this](int fd) { FinishBegun(fd); });
  for (auto& [pid, child] : stage_.children) {
    if (child.isToldToEnd && child.state < ChildState::kZombie) {
      stage_.End(child, CLD_KILLED, SIGTERM);
    }
  }
  Reap();
  Pass();
  (void)stage_.KeeperTurn();
}

void World::Open(std::size_t which, int result) {
  if (stage_.jobs.empty()) {
    return;
  }
  const auto at = stage_.jobs.begin() + static_cast<std::ptrdiff_t>(which % stage_.jobs.size());
  const ManagerStage::Job job = std::move(*at);
  stage_.jobs.erase(at);
  post_.opening = result;
  job.run();
}

void World::EndChild(std::size_t which) {
  const int how = input_.Byte() % 8;
  std::vector<Child*> living;
  for (auto& [pid, child] : stage_.children) {
    if (child.state < ChildState::kZombie) {
      living.push_back(&child);
    }
  }
  if (living.empty()) {
    return;
  }
  Child& child = *living[which % living.size()];
  if (how < 2) {
    child.state = how == 0 ? ChildState::kStopped : ChildState::kUp;
  } else if (how == 2) {
    stage_.End(child, CLD_KILLED, SIGSEGV);
  } else {
    stage_.End(child, CLD_EXITED, how == 3 ? ProcMgr::App::kExitCodeEio : how - 4);
  }
}

void World::Reap() {
  stage_.TakeTurn(Turn::kReaper);
  Require(std::none_of(stage_.children.begin(), stage_.children.end(), [](const auto& child) {
    return child.second.state == ChildState::kZombie;
  }));
}

void World::Pass() {
  GeneralStates states;
  for (const GeneralAppPtr& app : ProcMgr::GeneralAppsInOrder()) {
    states.emplace_back(app, app->state_);
  }
  std::map<std::string, bool> ends;
  for (const ProcMgr::App::BaseAppInfo& app : ProcMgr::executedBaseApp_) {
    const bool isDelayed = app.isExited_ && ProcMgr::ProcMgrMaster::IsOpening(app.appName_);
    const bool isOver = app.isExited_ || app.state_ == ProcessState::TERMINATED;
    ends[app.appName_] = isOver && !isDelayed;
  }
  const int access = FdOf(ProcMgr::kAccessService);
  post_.Forget();
  stage_.now += std::chrono::milliseconds(30);
  stage_.TakeTurn(Turn::kCheck);
  CheckGeneralReports(states);
  CheckBaseReports(access, ends);
}

// The channel that a step is about. Callbacks of a channel come one at a time, and none behind its
// end: yields null if nothing can come through it.
Peer* World::Choose(std::size_t which, int& fd) {
  if (post_.peers.empty()) {
    return nullptr;
  }
  const auto place = static_cast<std::ptrdiff_t>(which % post_.peers.size());
  fd = std::next(post_.peers.begin(), place)->first;
  FinishBegun(fd);
  const auto peer = post_.peers.find(fd);
  return peer == post_.peers.end() || peer->second.isCut ? nullptr : &peer->second;
}

void World::Ask(std::size_t which, const std::string& packet) {
  int fd = 0;
  if (const Peer* const peer = Choose(which, fd)) {
    Receive(fd, peer->callback, packet);
  }
}

void World::Cut(std::size_t which) {
  int fd = 0;
  if (Peer* const peer = Choose(which, fd)) {
    peer->isCut = true;
    peer->answer = ProcMgr::kNexioBroken;
    post_.Forget();
    (void)post_.Deliver(fd, peer->callback, nullptr);
    Require(post_.reports.empty() && post_.responses.empty());
  }
}

// The callback gets on, and the library closes a channel behind it that somebody has tried to close
// meanwhile.
void World::FinishBegun(int fd) {
  const auto peer = post_.peers.find(fd);
  if (peer == post_.peers.end() || !peer->second.begun) {
    return;
  }
  const std::string packet = std::move(*peer->second.begun);
  peer->second.begun.reset();
  Receive(fd, peer->second.callback, packet);
  if (const auto left = post_.peers.find(fd); left != post_.peers.end() && left->second.isClosing) {
    post_.peers.erase(left);
    Stage().open.erase(fd);
  }
}

// Nobody hears of a packet that is none, or that comes through a channel without a name.
void World::Receive(int fd, const ProcMgr::NexioRequestCallback& callback,
                    const std::string& packet) {
  std::string sender;
  RequestMsg frame;
  const bool isTaken = Immortal<NameTable>().NameOf(fd, sender) && packet.size() == sizeof(frame);
  Names names;
  if (isTaken) {
    std::memcpy(&frame, packet.data(), sizeof(frame));
    names = NamesIn(frame, sender);
  }
  Counts before;
  for (const std::string& name : names) {
    before[name] = CountUnderWay(name);
  }
  post_.Forget();
  const std::uint32_t seq = post_.Deliver(fd, callback, &packet);
  if (!isTaken || (isStopAsked_ && !IsReport(frame.type))) {
    Require(post_.reports.empty() && post_.responses.empty());
    return;
  }
  const std::vector<std::pair<int, std::uint32_t>> response(IsLoad(frame.type) ? 1 : 0, {fd, seq});
  Require(post_.responses == response);
  if (frame.type == RequestType::QUERY_APP_STATE) {
    CheckStatus(fd, names);
  } else if (HasEntries(frame.type)) {
    CheckEntries(fd, frame.type, names, before);
  } else {
    Require(post_.reports.empty() || IsReport(frame.type));
  }
}

}  // namespace PmTest

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto world = std::make_unique<PmTest::World>(PmTest::FuzzBytes(data, size));
  world->Play();
  return 0;
}
