// What must be right about a manager after each step.
#include <algorithm>
#include <set>

#include "base/names.h"
#include "core/process_manager.h"
#include "message/serialization.h"
#include "status/memory.h"
#include "tests/fuzz/manager_frames.h"
#include "tests/fuzz/manager_world.h"
#include "tests/fuzz/nexio_stage.h"

namespace PmTest {

namespace {

bool IsUnderWay(ProcessState state) {
  return state == ProcessState::STARTING || state == ProcessState::TERMINATING ||
         state == ProcessState::RESTARTING;
}

}  // namespace

// A state that a pass has changed is told, once, to whoever can hear it, and nothing else is.
void World::CheckGeneralReports(const GeneralStates& before) const {
  const int access = FdOf(ProcMgr::kAccessService);
  for (const auto& [app, state] : before) {
    const bool isOver = app->state_ == ProcessState::TERMINATED;
    Require(isOver == (ProcMgr::FindGeneralApp(app->appName_) != app));
    Require(isOver == app->isExited_);
    // Of one that ended while it was handed over to its owner, that one hears now.
    if (state == ProcessState::TERMINATED || app->isPriorityPending_) {
      continue;
    }
    const bool isTold = app->state_ != state && app->state_ != ProcessState::TERMINATING;
    for (const int fd : {access, FdOf(app->ownerName_)}) {
      Require(fd < 1 || post_.CountStates(fd, app->appName_) == (isTold ? 1 : 0));
    }
  }
}

// An end is told until a restart follows it, and the restart is told too. `ends` tells of each
// service whether the pass had an end to deal with.
void World::CheckBaseReports(int access, const std::map<std::string, bool>& ends) const {
  if (access < 1 || access != FdOf(ProcMgr::kAccessService)) {
    return;  // The pass has closed the channel half-way.
  }
  for (const auto& [name, isEnd] : ends) {
    const ProcMgr::App::BaseAppInfo* const app = ProcMgr::FindBaseApp(name);
    const bool isRestarted = isEnd && app != nullptr && !app->isExited_;
    const bool isHeard = name != ProcMgr::kAccessService;
    Require(post_.CountStates(access, name) == (isHeard ? isEnd + isRestarted : 0));
  }
}

std::ptrdiff_t World::CountUnderWay(const std::string& name) {
  const GeneralAppPtr app = ProcMgr::FindGeneralApp(name);
  return app != nullptr && IsUnderWay(app->state_) ? 1 : 0;
}

// Each entry has been answered, or has brought its application on a way whose end will be told.
void World::CheckEntries(int fd, RequestType type, const Names& names, const Counts& before) const {
  constexpr std::size_t kLongest = 3000;  // A frame has no room for an answer about such a name.
  const bool isStart = type == RequestType::START_APP;
  bool isAnswered = true;
  for (const auto& [name, underWay] : before) {
    if (name.size() > kLongest || (isStart && name == kPriorityApp)) {
      return;  // A priority application is handed over to its owner.
    }
    isAnswered = isAnswered && post_.CountStates(fd, name) + CountUnderWay(name) - underWay ==
                                   std::count(names.begin(), names.end(), name);
  }
  // A start ends at a name that isn't known, without a word.
  Require(isAnswered || (isStart && post_.reports.empty()));
}

void World::CheckStatus(int fd, const Names& names) const {
  std::map<std::string, int> status;
  for (const std::string& name : names) {
    const GeneralAppPtr app = ProcMgr::FindGeneralApp(name);
    const bool isGone = app == nullptr || app->isExited_;
    const bool isStopped = !isGone && stage_.children.at(app->pid_).state == ChildState::kStopped;
    status[name] = isGone ? 1 : isStopped ? 2 : 0;
  }
  RequestMsg frame;
  const bool isSent =
      !status.empty() && ProcMgr::Serialization::ProcMgrPackAppDetailStatus(status, frame);
  Require(post_.reports.size() == (isSent ? 1U : 0U));
  Require(!isSent || (post_.reports.front().fd == fd && post_.reports.front().status == status));
}

// Every process belongs to one record, every record without an exit on file has one, and the memory
// knows of just as many.
void World::CheckRecords() const {
  std::set<pid_t> supervised;
  const auto check = [&](const ProcMgr::App::AppInfo& app) {
    Require(app.state_ != ProcessState::INITSTATE);
    Require(app.isExited_ || app.state_ != ProcessState::TERMINATED);
    if (!app.isExited_) {
      const Child& child = stage_.children.at(app.pid_);
      Require(child.state != ChildState::kReaped && child.name == app.appName_);
      Require(supervised.insert(app.pid_).second);
    }
  };
  for (const ProcMgr::App::BaseAppInfo& app : ProcMgr::executedBaseApp_) {
    check(app);
    Require(ProcMgr::FindBaseApp(app.appName_) == &app);
  }
  for (const GeneralAppPtr& app : ProcMgr::GeneralAppsInOrder()) {
    check(*app);
    Require(ProcMgr::FindGeneralApp(app->appName_) == app);
  }
  const auto count = static_cast<std::ptrdiff_t>(supervised.size());
  Require(count ==
          std::count_if(stage_.children.begin(), stage_.children.end(), [](const auto& child) {
            return child.second.state != ChildState::kReaped;
          }));
  const ProcMgr::Status::Picture picture = ProcMgr::Status::Memory::Instance().Copy();
  Require(count == std::count_if(picture.apps.begin(), picture.apps.end(),
                                 [](const auto& app) { return app.pid != 0; }));
}

// Each channel has its name, or is being closed; no name has one that is closed.
void World::CheckChannels() const {
  for (const auto& [fd, peer] : post_.peers) {
    Require(FdOf(peer.name) == fd || Immortal<NameTable>().IsClosing(fd));
  }
  for (const char* const name : kAppNames) {
    const int fd = FdOf(name);
    Require(fd < 1 || (post_.peers.contains(fd) && post_.peers.at(fd).name == name));
  }
}

}  // namespace PmTest
