#include "tools/service/base_service.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "base/names.h"

namespace Services {
namespace {

// Below a second: the limit of a sleep is given in nanoseconds alone.
constexpr std::chrono::milliseconds kBeatPeriod{500};
constexpr std::chrono::minutes kChannelWait{1};

sigset_t EndSignals() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  (void)sigaddset(&signals, SIGTERM);
  (void)sigaddset(&signals, SIGINT);
  return signals;
}

// A service that can't do its part of the protocol is of no use; the manager brings it back.
void Require(const char* step, ProcMgr::Result result) {
  if (result != ProcMgr::Result::kOk) {
    (void)std::fprintf(stderr, "%s: %s\n", step, ProcMgr::ToText(result));
    std::_Exit(EXIT_FAILURE);
  }
}

}  // namespace

void BlockEndSignals() {
  const sigset_t signals = EndSignals();
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

BaseService::BaseService(const char* name, ProcMgr::Agent::Callbacks callbacks) {
  // The threads of the libraries inherit the mask, so the signals wait for Run.
  BlockEndSignals();
  ProcMgr::Agent::Options options;
  options.name = name;
  options.callbacks = std::move(callbacks);
  Require("serve the name", ProcMgr::Agent::Create(options, agent_));
}

void BaseService::AwaitManager(std::chrono::seconds limit) {
  const ProcMgr::Result result = agent_->WaitConnected(limit);
  if (result != ProcMgr::Result::kOk) {
    (void)std::fprintf(
        stderr, "%s: %s within %lld s: it is a base service, which the manager starts\n",
        agent_->Name().c_str(), ProcMgr::ToText(result), static_cast<long long>(limit.count()));
    std::_Exit(EXIT_FAILURE);
  }
}

void BaseService::ReportReady() {
  const bool isAccessManager = agent_->Name() == ProcMgr::kAccessService;
  if (isAccessManager) {
    Require("report that the access manager is up",
            agent_->ReportState(ProcMgr::ServiceState::kUp, kChannelWait));
  }
  Require("report that the service is ready",
          agent_->ReportState(ProcMgr::ServiceState::kReady, kChannelWait));
  if (isAccessManager) {
    Require("ask for every application",
            agent_->ReportState(ProcMgr::ServiceState::kReportAll, kChannelWait));
  }
}

void BaseService::BeatIfDue() {
  const ProcMgr::SteadyTime now = ProcMgr::SteadyNow();
  if (now >= nextBeat_) {
    nextBeat_ = now + kBeatPeriod;
    // A beat that nobody hears is made up for by the next one.
    (void)agent_->Beat();
  }
}

bool BaseService::Run(std::chrono::milliseconds period) {
  const sigset_t signals = EndSignals();
  const ProcMgr::SteadyTime end = ProcMgr::SteadyNow() + period;
  do {
    BeatIfDue();
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::min(end, nextBeat_) - ProcMgr::SteadyNow());
    const timespec limit{0, std::max<long>(left.count(), 0)};
    if (sigtimedwait(&signals, nullptr, &limit) > 0) {
      return false;
    }
  } while (ProcMgr::SteadyNow() < end);
  return true;
}

}  // namespace Services
