// A day on which one system call fails, of a boot, a launch, the supervision or the messaging, in
// the manager or in a child of it: it goes on, supervises, says what is missing and leaves nothing.
#include <sys/syscall.h>

#include <iterator>

#include "base/small_file.h"
#include "sandbox/agent_peer.h"
#include "sandbox/fault_injector.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

using Where = FaultInjector::Where;

struct Kind {
  const char* name;
  int error;
  std::vector<int> calls;
};

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

// Calls that wake somebody up or put a descriptor back into a set that it is in already can't fail
// in the kernel, and closing does what it is to do whatever it yields.
const Kind kKinds[] = {
    {"Interruptions",
     EINTR,
     {SYS_read, SYS_write, SYS_openat, SYS_connect, SYS_accept4, SYS_sendto, SYS_recvfrom,
      SYS_recvmsg, SYS_waitid, SYS_epoll_pwait, SYS_ppoll, SYS_clock_nanosleep, SYS_fcntl,
      SYS_rt_sigtimedwait,
#ifdef __x86_64__
      SYS_epoll_wait, SYS_poll,
#endif
      SYS_nanosleep}},
    {"NoDescriptor",
     EMFILE,
     {SYS_openat, SYS_socket, SYS_accept4, SYS_epoll_create1, SYS_eventfd2, SYS_timerfd_create,
      SYS_pipe2, SYS_inotify_init1, SYS_pidfd_open, SYS_fcntl}},
    {"NoMemory",
     ENOMEM,
     {SYS_newfstatat, SYS_getdents64, SYS_bind, SYS_listen, SYS_recvmsg, SYS_recvfrom,
      SYS_setsockopt, SYS_getsockopt, SYS_ppoll, SYS_mmap, SYS_madvise, SYS_execve, SYS_setgroups,
#ifdef __x86_64__
      SYS_readlink, SYS_poll,
#endif
      SYS_readlinkat}},
    {"NoRoomInAQueue", ENOBUFS, {SYS_sendto, SYS_sendmsg}},
    {"BrokenMedia",
     EIO,
     {SYS_read, SYS_write, SYS_lseek, SYS_mkdirat, SYS_unlinkat, SYS_fchmodat, SYS_faccessat,
#ifdef __x86_64__
      SYS_access, SYS_mkdir, SYS_unlink, SYS_chmod, SYS_rename,
#endif
      SYS_renameat}},
    {"NoProcessAndNoRight",
     EAGAIN,
     {SYS_clone, SYS_clone3, SYS_setuid, SYS_setgid, SYS_setpriority, SYS_prctl, SYS_prlimit64,
      SYS_sched_setaffinity, SYS_sched_setscheduler, SYS_rt_sigprocmask, SYS_rt_sigaction,
      SYS_umask, SYS_setitimer, SYS_chdir, SYS_close_range}},
};

class Faults : public ScenarioTest, public ::testing::WithParamInterface<Kind> {
 protected:
  static constexpr const char* kEntryFile = "/run/sandbox/owner.yaml";
  static constexpr int kBegin = SYS_rt_sigprocmask;  // The manager's first act.

  struct Use {
    std::size_t descriptors;
    std::size_t threads;
  };

  void SetUp() override {
    ScenarioTest::SetUp();
    AddOperator();
    sandbox_.WriteFile(kEntryFile,
                       ServiceFile({Service("general", {}, {{"gid", "77"}, {"nice", "3"}})}));
    sandbox_.WriteFile(
        kBaseFile,
        ServiceFile({Service("owner", {"--touch", "/run/sandbox/owner"},
                             {{"isReporting", "true"}, {"startupEntryPath", kEntryFile}}),
                     Service("alpha", {"--serve", "alpha"}, {{"restart", "on-forever"}}),
                     {"beta",
                      "/opt/test/operators",
                      {"--serve", "beta"},
                      {{"restart", "on-forever"}, {"uid", "operator"}, {"gid", "operator"}}}}));
  }

  // Zero if it doesn't run.
  [[nodiscard]] pid_t PidOf(const std::string& name) const {
    const std::vector<pid_t> services = daemon_->Services();
    const auto found = std::find_if(services.begin(), services.end(), [&](pid_t pid) {
      std::string words;  // None of one that has ended meanwhile.
      (void)ProcMgr::ReadSmallFile("/proc/" + std::to_string(pid) + "/cmdline",
                                   ProcMgr::kConfigFileLimit, words);
      return words.ends_with(name + '\0');
    });
    return found == services.end() ? 0 : *found;
  }

  // The messaging library keeps one inotify instance or none: whether it has had to wait for
  // somebody is a matter of luck.
  [[nodiscard]] Use UseNow() const {
    std::vector<std::string> open = daemon_->Descriptors();
    const auto spare = std::find_if(open.begin(), open.end(),
                                    [](const std::string& fd) { return fd.ends_with("inotify"); });
    return {open.size() - (spare == open.end() ? 0 : 1), daemon_->ThreadCount()};
  }

  // What stands in the log from `begin_` on, without numbers.
  [[nodiscard]] std::set<std::string> Texts() const {
    std::set<std::string> texts;
    const std::vector<LogLine> lines = log_.Lines();
    for (std::size_t i = begin_; i < lines.size(); ++i) {
      std::string text;
      std::copy_if(lines[i].text.begin(), lines[i].text.end(), std::back_inserter(text),
                   [](char c) { return c < '0' || c > '9'; });
      texts.insert(text);
    }
    return texts;
  }
  [[nodiscard]] bool IsTold(std::string_view part) const {
    return log_.WaitFor(part, begin_, milliseconds(0)).has_value();
  }

  // The end of the boot, or of the manager: whichever comes.
  void AwaitBootOrEnd() {
    bool isReady = false;
    EXPECT_TRUE(Eventually([&] {
      isReady =
          isReady || (owner_.AwaitChannel(milliseconds(1000)) && owner_.ReportState(kStateReady));
      return !daemon_->IsRunning() || IsTold("InitBaseApplication end") ||
             IsTold("ParseYamlFile failed");
    }));
    hasChannel_ = isReady || (PidOf("owner") != 0 && owner_.AwaitChannel(milliseconds(1000)));
  }

  // The owner is told what becomes of a request that nobody can spoil any more.
  [[nodiscard]] bool IsAnswered() {
    bool isAnswered = owner_.TermApps({"sentinel"});
    for (auto report = owner_.NextReport(); isAnswered && report.has_value();
         report = owner_.NextReport()) {
      if (report->appName == "sentinel") {
        return true;
      }
    }
    return false;
  }

  // One life of the manager, up to the point where it is to be as if nothing had happened.
  void Live(FaultInjector& injector) {
    begin_ = log_.Lines().size();
    daemon_.emplace(sandbox_, std::vector<std::string>{kBaseFile},
                    Process::Options{{}, "process-manager", &FaultInjector::Trap});
    injector.Attach(daemon_->Pid(), ProgramPath("process-manager"), kBegin);
    AwaitBootOrEnd();
    if (hasChannel_) {
      (void)owner_.Send(TextFrame(ProcMgr::Message::RequestType::LOAD_STARTUP_CFG, "0#"));
      (void)owner_.StartApps({{"general", {}, {}}});
      (void)owner_.RestartApps({{"general", {}, {}}});
      (void)owner_.TermApps({"general"});
    }
    for (int round = 0; round < 3 && daemon_->IsRunning(); ++round) {
      for (const char* const name : {"alpha", "beta"}) {
        if (const pid_t pid = PidOf(name); pid != 0) {
          ASSERT_TRUE(Kill(pid));
          EXPECT_TRUE(Eventually([&] {
            const pid_t now = PidOf(name);
            return (now != 0 && now != pid) || !daemon_->IsRunning();
          })) << name
              << " doesn't come back in round " << round;
        }
      }
    }
  }

  // Takes the manager away.
  void ExpectWhole(const Use& use, const std::set<std::string>& usual) {
    const auto isToldAnew = [&] {
      const std::set<std::string> texts = Texts();
      return !std::includes(usual.begin(), usual.end(), texts.begin(), texts.end());
    };
    if (!daemon_->IsRunning()) {
      EXPECT_TRUE(WIFEXITED(*daemon_->WaitExit())) << *daemon_->WaitExit();
      EXPECT_TRUE(Eventually(isToldAnew)) << "it has ended without a word";
    } else if (!IsTold("ParseYamlFile failed")) {
      EXPECT_TRUE(PidOf("alpha") != 0 || PidOf("beta") != 0);
      for (const char* const name : {"alpha", "beta", "owner"}) {
        EXPECT_TRUE(PidOf(name) != 0 || Eventually(isToldAnew)) << name << " is away untold";
      }
      // Only an opening that has no event of its own fails at once, which is told.
      EXPECT_TRUE(PidOf("owner") == 0 || (hasChannel_ ? IsAnswered() : call_ == SYS_eventfd2));
      EXPECT_TRUE(Eventually([&] {
        const Use now = UseNow();
        return now.descriptors <= use.descriptors && now.threads <= use.threads;
      })) << ::testing::PrintToString(daemon_->Descriptors());
      EXPECT_TRUE(daemon_->AwaitReaped());
    }
    daemon_.reset();
    owner_.Close();
  }

  AgentPeer owner_{sandbox_, "owner"};
  std::size_t begin_ = 0;
  int call_ = 0;  // The one that fails.
  bool hasChannel_ = false;
};

TEST_P(Faults, CostNoMoreThanTheCallAtHand) {
  std::set<std::string> usual;
  Use use{};
  std::map<std::pair<int, Where>, int> counts;
  {
    std::vector<int> calls = GetParam().calls;
    calls.push_back(kBegin);
    FaultInjector injector(calls);
    Live(injector);
    ASSERT_TRUE(hasChannel_ && IsAnswered());
    // All three have a channel anew after the last round.
    ASSERT_TRUE(log_.WaitForCount("RegServiceCallBack success", 7));
    usual = Texts();
    use = UseNow();
    for (const int call : calls) {
      for (const Where where : {Where::kProgram, Where::kChild}) {
        counts[{call, where}] = injector.Count(call, where);
      }
    }
    ExpectWhole(use, usual);
  }
  int struck = 0;
  for (const auto& [place, count] : counts) {
    // The first one is of the boot, the last one of the supervision.
    for (const int nth : std::set<int>{std::min(count, 1), (count + 2) / 3, count * 2 / 3}) {
      if (nth == 0) {
        continue;
      }
      const auto [call, where] = place;
      SCOPED_TRACE("call " + std::to_string(call) + ", number " + std::to_string(nth) + " in the " +
                   (where == Where::kProgram ? "manager" : "child"));
      FaultInjector injector({call, kBegin});
      call_ = call;
      injector.Arm({call, where, nth, GetParam().error});
      Live(injector);
      struck += injector.Struck();
      ExpectWhole(use, usual);
      if (HasFailure()) {
        return;
      }
    }
  }
  EXPECT_GT(struck, 0);
}

INSTANTIATE_TEST_SUITE_P(Of, Faults, ::testing::ValuesIn(kKinds),
                         [](const auto& kind) { return kind.param.name; });

}  // namespace
}  // namespace PmTest
