#include <sys/syscall.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/text.h"
#include "sandbox/fault_injector.h"
#include "torture/fault_scene.h"
#include "torture/fault_table.h"
#include "torture/preload.h"
#include "torture/require.h"
#include "torture/runs.h"
#include "torture/shortage.h"
#include "torture/stage.h"

namespace PmTorture {
namespace {

using PmSandbox::FaultInjector;
using Fault = FaultInjector::Fault;
using Where = FaultInjector::Where;

constexpr Where kPlaces[] = {Where::kProgram, Where::kChild};
constexpr int kHighestCall = 470;
constexpr int kBegin = SYS_rt_sigprocmask;  // The manager's first act.

// An allocation is as good as a system call.
const FaultyCall kAllocation = {-1, "allocation", {ENOMEM}};
// One from the report on for which the boot waits. It comes once.
const FaultyCall kAllocationOfReport = {-2, "allocation-of-report", {ENOMEM}};
constexpr int kMostOfReport = 3;

const char* PlaceName(Where where) {
  return where == Where::kProgram ? "manager" : "child";
}

// What stands before and behind the number of the call that fails.
std::string NameBefore(const Fault& fault, const char* name) {
  return std::string(name) + ":" + PlaceName(fault.where) + ":";
}
std::string NameBehind(const Fault& fault) {
  return std::string(":") + strerrorname_np(fault.error);
}
// In the form in which --fault takes it.
std::string Describe(const Fault& fault, const char* name) {
  return NameBefore(fault, name) + std::to_string(fault.nth) + NameBehind(fault);
}

// How often each call is made in an undisturbed life.
using Counts = std::map<std::pair<int, Where>, int>;

// Those after which the injector itself couldn't go on, or that only wait and wake.
bool IsWatched(int call) {
  static const std::set<int> kOut = {SYS_futex, SYS_exit, SYS_exit_group, SYS_rt_sigreturn,
                                     SYS_restart_syscall};
  return !kOut.contains(call);
}

Trouble Watched(FaultInjector& injector) {
  Trouble trouble;
  trouble.manager = {{}, "process-manager", &FaultInjector::Trap};
  trouble.attach = [&injector](pid_t pid) {
    injector.Attach(pid, PmSandbox::ProgramPath("process-manager"), kBegin);
  };
  return trouble;
}

Trouble Failing(FaultInjector& injector, const Fault& fault) {
  Trouble trouble = Watched(injector);
  trouble.isSpell = fault.nth == 0;
  trouble.begin = [&injector, fault] { injector.Arm(fault); };
  trouble.hasStruck = [&injector] { return injector.Struck() > 0; };
  trouble.end = [&injector] { injector.Disarm(); };
  return trouble;
}

using Memory = Preload<Shortage>;

Memory MakeMemory() {
  return Memory(PmSandbox::ProgramPath("libpm-shortage.so"), kShortageVariable);
}

// How many allocations a program makes before its main, in which nobody could catch their failure.
int CountBeforeMain(const FaultScene& scene) {
  const Memory memory = MakeMemory();
  PmSandbox::Process program(scene.Host(), PmSandbox::ProgramPath("process-manager"), {"--version"},
                             {memory.Environment(), "version", nullptr});
  Require(program.WaitExit() == 0, "a program tells its version");
  return static_cast<int>(memory.Shared().count);
}

// Without a failure if `nth` is -1.
Trouble Starving(const Memory& memory, int nth) {
  Trouble trouble;
  trouble.manager = {memory.Environment(), "process-manager", nullptr};
  trouble.isSpell = nth == 0;
  trouble.begin = [&shared = memory.Shared(), nth] {
    constexpr std::int64_t kSpell = 1000;
    shared.first = nth == 0 ? shared.count + 1 : nth;
    shared.last = nth == 0 ? shared.count + kSpell : nth;
  };
  trouble.hasStruck = [&shared = memory.Shared()] { return shared.struck > 0; };
  trouble.end = [&shared = memory.Shared()] { shared.last = 0; };
  return trouble;
}

Trouble StarvingReport(const Memory& memory, int nth) {
  Trouble trouble = Starving(memory, nth);
  trouble.isSpell = false;
  trouble.beginsWithReport = true;
  trouble.begin = [&shared = memory.Shared(), nth] {
    shared.last = shared.count + nth;
    shared.first = shared.last.load();
  };
  return trouble;
}

// Throws if there is a call that nobody has thought of.
Counts CountCalls(FaultScene& scene) {
  std::vector<int> all(kHighestCall);
  std::iota(all.begin(), all.end(), 0);
  std::erase_if(all, [](int call) { return !IsWatched(call); });
  FaultInjector injector(all);
  scene.LiveUndisturbed(Watched(injector));
  Counts counts;
  for (const int call : all) {
    for (const Where where : kPlaces) {
      if (const int count = injector.Count(call, where); count > 0) {
        counts[{call, where}] = count;
      }
    }
  }
  std::string unknown;
  for (const auto& [place, count] : counts) {
    const int call = place.first;
    const auto& faulty = FaultyCalls();
    const bool isKnown =
        std::any_of(faulty.begin(), faulty.end(),
                    [call](const FaultyCall& each) { return each.number == call; }) ||
        std::find(SureCalls().begin(), SureCalls().end(), call) != SureCalls().end();
    unknown += isKnown ? "" : " " + std::to_string(call);
  }
  Require(unknown.empty(), "there are system calls that no table has:" + unknown);
  const Memory memory = MakeMemory();
  scene.LiveUndisturbed(Starving(memory, -1));
  counts[{kAllocation.number, Where::kProgram}] = static_cast<int>(memory.Shared().count);
  return counts;
}

struct Plan {
  const FaultyCall* call = nullptr;
  Fault fault;
};

// Which of `count` calls fail. The first one is of the boot, the last one of the supervision; 0 is
// a spell.
std::set<int> Picks(int count) {
  return {0, 1, (count + 2) / 3, std::max(1, count * 2 / 3)};
}

// Those between `before` and `count`, the first ones all: they are of the boot, where most hangs on
// each.
std::set<int> PickAllocations(int before, int count) {
  constexpr int kOfEach = 100;
  std::set<int> picks = {0};
  for (int i = 1; i <= kOfEach; ++i) {
    picks.insert(before + i);
    picks.insert(before + (count - before) * i / kOfEach);
  }
  return picks;
}

std::vector<Plan> AllPlans(const Counts& counts, int beforeMain) {
  std::vector<Plan> plans;
  const auto add = [&](const FaultyCall& call, Where where) {
    const auto found = counts.find({call.number, where});
    if (found == counts.end()) {
      return;
    }
    for (const int nth : &call == &kAllocation ? PickAllocations(beforeMain, found->second)
                                               : Picks(found->second)) {
      for (const int error : call.errors) {
        plans.push_back({&call, {call.number, where, nth, error}});
      }
    }
  };
  for (const FaultyCall& call : FaultyCalls()) {
    add(call, Where::kProgram);
    add(call, Where::kChild);
  }
  add(kAllocation, Where::kProgram);
  for (int nth = 1; nth <= kMostOfReport; ++nth) {
    plans.push_back(
        {&kAllocationOfReport, {kAllocationOfReport.number, Where::kProgram, nth, ENOMEM}});
  }
  return plans;
}

// Those whose description holds `text`. Which of its calls a life picks varies with their number,
// so a whole description stands for itself.
std::vector<Plan> Matching(std::vector<Plan> plans, std::string_view text) {
  for (Plan plan : plans) {
    const std::string before = NameBefore(plan.fault, plan.call->name);
    const std::string behind = NameBehind(plan.fault);
    if (text.size() > before.size() + behind.size() && text.starts_with(before) &&
        text.ends_with(behind)) {
      text.remove_prefix(before.size());
      text.remove_suffix(behind.size());
      plan.fault.nth = ProcMgr::ParseNumber<int>(text).value_or(plan.fault.nth);
      return {plan};
    }
  }
  std::erase_if(plans, [&](const Plan& plan) {
    return Describe(plan.fault, plan.call->name).find(text) == std::string::npos;
  });
  return plans;
}

// The lives of one call in one place.
struct Row {
  int lives = 0;
  int struck = 0;
  std::map<Outcome, int> outcomes;
};

using Matrix = std::map<std::pair<std::string, Where>, Row>;

void Print(const Matrix& matrix) {
  std::printf("faults: %-18s %-8s %6s %7s %6s %6s %6s\n", "call", "in", "lives", "failed", "whole",
              "told", "ended");
  Row sum;
  for (const auto& entry : matrix) {
    const auto& [place, row] = entry;
    const auto count = [&outcomes = entry.second.outcomes](Outcome outcome) {
      const auto found = outcomes.find(outcome);
      return found == outcomes.end() ? 0 : found->second;
    };
    std::printf("faults: %-18s %-8s %6d %7d %6d %6d %6d\n", place.first.c_str(),
                PlaceName(place.second), row.lives, row.struck, count(Outcome::kWhole),
                count(Outcome::kTold), count(Outcome::kEnded));
    sum.lives += row.lives;
    sum.struck += row.struck;
  }
  std::printf("faults: %d lives, %d calls failed: hung 0, unsupervised 0, untold 0, leaked 0\n",
              sum.lives, sum.struck);
  (void)std::fflush(stdout);
}

// Yields how many calls have failed.
int LiveOnce(FaultScene& scene, const Plan& plan, Outcome& outcome) {
  if (plan.call == &kAllocation || plan.call == &kAllocationOfReport) {
    const auto starving = plan.call == &kAllocation ? Starving : StarvingReport;
    const Memory memory = MakeMemory();
    outcome = scene.Live(starving(memory, plan.fault.nth));
    return static_cast<int>(memory.Shared().struck);
  }
  FaultInjector injector({plan.fault.call, kBegin});
  outcome = scene.Live(Failing(injector, plan.fault));
  return injector.Struck();
}

void Live(FaultScene& scene, const Plan& plan, Row& row) {
  const std::string what = Describe(plan.fault, plan.call->name);
  try {
    Outcome outcome = Outcome::kWhole;
    row.struck += LiveOnce(scene, plan, outcome);
    ++row.outcomes[outcome];
    ++row.lives;
  } catch (const std::exception& error) {
    ShowEnd(scene.Log());
    throw Broken(what + ": " + error.what() + "\nalone: pm-torture faults --fault " + what);
  }
}

}  // namespace

void RunFaults(const Options& options) {
  FaultScene scene;
  std::vector<Plan> plans = AllPlans(CountCalls(scene), CountBeforeMain(scene));
  if (!options.fault.empty()) {
    plans = Matching(std::move(plans), options.fault);
    Require(!plans.empty(), "there is no such fault: " + options.fault);
  }
  if (options.lives > 0) {
    std::shuffle(plans.begin(), plans.end(), std::mt19937_64(options.seed));
    plans.resize(std::min(plans.size(), static_cast<std::size_t>(options.lives)));
  }
  Matrix matrix;
  for (const Plan& plan : plans) {
    Live(scene, plan, matrix[{plan.call->name, plan.fault.where}]);
  }
  Print(matrix);
}

}  // namespace PmTorture
