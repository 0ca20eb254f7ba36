// A local user without any rights who turns against everything that a running platform has in the
// file system and in the table of processes; and one program of a service's own user.
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/resource.h>

#include "base/unix_address.h"
#include "sandbox/as_user.h"
#include "sandbox/raw_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

class Neighbour : public ScenarioTest {
 protected:
  // A service of the agent library and one that serves its name and reads nothing.
  void SetUp() override {
    ScenarioTest::SetUp();
    sandbox_.WriteSettings("watch_dog: {enable: false}\npmupload: {enable: true}\n");
    Boot({HelloService({{"restart", "on-forever"}}),
          Service("plain", {"--serve", "plain"}, {{"restart", "on-forever"}})});
    AwaitBooted();
    hello_ = AwaitStarted("hello");
    plain_ = AwaitStarted("plain");
    KillBoth();  // All threads that the manager ever needs are there from now on.
    descriptors_ = daemon_->Descriptors().size();
    threads_ = daemon_->ThreadCount();
    servicesOwn_ = OpenDescriptors(hello_).size();
  }

  // Both come back, with a channel each.
  void KillBoth() {
    const std::size_t before = log_.Lines().size();
    ASSERT_TRUE(Kill(hello_));
    hello_ = AwaitStarted("hello", before);
    ASSERT_TRUE(Await("PM revice BASESERVICE_STATE_REPORT msg from hello", before));
    // On a slow machine it may serve too late for a channel, once or twice.
    std::optional<bool> isOpen;
    do {
      const std::size_t killed = log_.Lines().size();
      ASSERT_TRUE(Kill(plain_));
      plain_ = AwaitStarted("plain", killed);
      isOpen = PmSandbox::AwaitOpening(log_, "plain", killed);
      ASSERT_TRUE(isOpen.has_value());
    } while (!*isOpen);
  }

  void ExpectUnharmed() {
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors(hello_).size() <= servicesOwn_; }))
        << ::testing::PrintToString(OpenDescriptors(hello_));
    KillBoth();
    EXPECT_TRUE(Eventually([&] { return daemon_->Descriptors().size() <= descriptors_; }))
        << ::testing::PrintToString(daemon_->Descriptors());
    EXPECT_TRUE(Eventually([&] { return daemon_->ThreadCount() <= threads_; }));
    const bool mayBeLate = PmSandbox::MayHeartsBeLate();
    EXPECT_TRUE(Eventually([&] {
      return log_.Count("status=lost") == (mayBeLate ? log_.Count("status=recovery") : 0);
    }));
    EXPECT_TRUE(daemon_->AwaitReaped());
  }

  // What there is inside that is the platform's. The test's own folder is left out.
  [[nodiscard]] std::vector<fs::path> Entries() const {
    const Sandbox::Inside inside(sandbox_);
    std::vector<fs::path> entries;
    for (const char* const top : {"/run", "/etc/zur", "/opt/test", "/sys/fs/cgroup/cpu",
                                  "/sys/fs/cgroup/memory", "/sys/fs/cgroup/cpuset"}) {
      entries.emplace_back(top);
      for (fs::recursive_directory_iterator at(top), end; at != end; ++at) {
        if (at->path() == Sandbox::kDir) {
          at.disable_recursion_pending();
        } else if (at->path().filename() != "cgroup.event_control") {  // The kernel's, for all.
          entries.push_back(at->path());
        }
      }
    }
    return entries;
  }

  pid_t hello_ = 0;
  pid_t plain_ = 0;
  std::size_t descriptors_ = 0;
  std::size_t threads_ = 0;
  std::size_t servicesOwn_ = 0;
};

// Whatever the kernel itself refuses needs no line.
TEST_F(Neighbour, CanChangeNothingInTheFileSystem) {
  using Try = bool (*)(const char* path);
  const std::pair<const char*, Try> tries[] = {
      {"write",
       [](const char* path) {
         return ProcMgr::UniqueFd(open(path, O_WRONLY | O_CLOEXEC | O_NONBLOCK)).IsOpen();
       }},
      {"mode", [](const char* path) { return chmod(path, 0777) == 0; }},
      {"owner", [](const char* path) { return lchown(path, kStranger, kStranger) == 0; }},
      {"remove", [](const char* path) { return remove(path) == 0; }},
      {"move", [](const char* path) { return rename(path, "/run/nexio/moved") == 0; }},
      {"enter",
       [](const char* path) {
         const std::string below = std::string(path) + "/mine";
         return symlink("/etc/passwd", below.c_str()) == 0 && unlink(below.c_str()) == 0;
       }},
  };
  const std::vector<fs::path> entries = Entries();
  ASSERT_GT(entries.size(), 50U);
  Words done;
  AsUser(sandbox_, kStranger, [&] {
    for (const auto& [name, attempt] : tries) {
      for (const fs::path& entry : entries) {
        if (attempt(entry.c_str())) {
          done.push_back(name + (" " + entry.string()));
        }
      }
    }
  });
  EXPECT_EQ(done, Words{"enter /run/nexio"});
  ExpectUnharmed();
}

TEST_F(Neighbour, CanDoNothingToTheProcesses) {
  using Try = bool (*)(pid_t pid);
  const std::pair<const char*, Try> tries[] = {
      {"signal", [](pid_t pid) { return kill(pid, 0) == 0; }},
      {"trace", [](pid_t pid) { return ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) == 0; }},
      {"limit",
       [](pid_t pid) {
         const rlimit none{};
         return prlimit(pid, RLIMIT_NOFILE, &none, nullptr) == 0;
       }},
      {"priority", [](pid_t pid) { return setpriority(PRIO_PROCESS, id_t(pid), 19) == 0; }},
      {"cores",
       [](pid_t pid) {
         cpu_set_t first;
         CPU_ZERO(&first);
         CPU_SET(0, &first);
         return sched_setaffinity(pid, sizeof(first), &first) == 0;
       }},
      {"descriptors", [](pid_t pid) { return !OpenDescriptors(pid).empty(); }},
  };
  Words done;
  AsUser(sandbox_, kStranger, [&] {
    for (const auto& [name, attempt] : tries) {
      for (const pid_t pid : {daemon_->Pid(), hello_, plain_}) {
        if (attempt(pid)) {
          done.emplace_back(name);
        }
      }
    }
    for (const pid_t pid : {daemon_->Pid(), hello_, plain_}) {
      for (const char* const file :
           {"mem", "oom_score_adj", "comm", "timerslack_ns", "clear_refs"}) {
        if (std::ofstream("/proc/" + std::to_string(pid) + "/" + file) << "1" << std::flush) {
          done.emplace_back(file);
        }
      }
    }
  });
  EXPECT_EQ(done, Words{});
  ExpectUnharmed();
}

// It shares the user with the service, and its file rights: only the pid tells it from the manager.
TEST_F(Neighbour, CantSpeakForTheManagerUnderTheServicesOwnUser) {
  const std::size_t before = log_.Lines().size();
  AsUser(sandbox_, 1000, [&] {
    const auto forger = ConnectRaw(sandbox_, "hello");
    ASSERT_TRUE(forger.has_value());
    (void)forger->Send(MakePacket(kHello, 0, "PROCMGR"));
    EXPECT_TRUE(forger->AwaitClosed());
  });
  EXPECT_TRUE(Await("server hello refused a client: not one of those whom it serves, pid=" +
                        std::to_string(getpid()) + ", uid=1000,",
                    before));
  // The channel is the manager's still: what the service says on its way out arrives.
  ASSERT_TRUE(Kill(hello_, SIGTERM));
  EXPECT_TRUE(Await("PROCMGR : TERMINATING to TERMINATED appName=hello", before));
}

// Each on every socket that there is, of every kind.
TEST_F(Neighbour, CanSendWhatHeLikes) {
  struct Attack {
    const char* name;
    int count;          // Of connections, all kept open.
    std::string bytes;  // What each sends.
  };
  const std::string hello = EncodePacket(MakePacket(kHello, 0, "hello"));
  RawPacket liar = MakePacket(kRequest, 1, "x");
  liar.size = 65536;
  const Attack attacks[] = {
      {"silence", 40, ""},
      {"half a header", 1, hello.substr(0, 7)},
      {"half a packet", 1, hello.substr(0, 18)},
      {"a size that lies", 1, EncodePacket(liar)},
      {"no packet", 1, std::string(70000, '\xff')},
      {"a hello of another's name", 1, hello},
      {"a flood", 600, hello + "x"},
  };
  std::vector<std::string> sockets;
  for (const fs::path& entry : Entries()) {
    struct stat status {};
    if (stat(sandbox_.Outside(entry).c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
      sockets.push_back(entry);
    }
  }
  for (const char* const known : {"/run/nexio/PROCMGR.sock", "/run/nexio/hello.sock",
                                  "/run/heartbeat.sock", "/run/process-manager/status.sock"}) {
    EXPECT_THAT(sockets, ::testing::Contains(known));
  }
  for (const Attack& attack : attacks) {
    SCOPED_TRACE(attack.name);
    const std::size_t before = log_.Lines().size();
    std::vector<ProcMgr::UniqueFd> held;
    AsUser(sandbox_, kStranger, [&] {
      for (const std::string& path : sockets) {
        const ProcMgr::UnixAddress address(path);
        for (int i = 0; i < attack.count; ++i) {
          for (const int type : {SOCK_SEQPACKET, SOCK_STREAM, SOCK_DGRAM}) {
            ProcMgr::UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            if (connect(fd.Get(), address.Get(), address.Size()) == 0) {
              (void)send(fd.Get(), attack.bytes.data(), attack.bytes.size(), MSG_NOSIGNAL);
              held.push_back(std::move(fd));
            }
          }
        }
      }
    });
    EXPECT_FALSE(held.empty());
    // The service of the library tells of each whom it doesn't let in, or that there are too many.
    EXPECT_TRUE(Await("server hello ", before));
    EXPECT_TRUE(Await("uid=" + std::to_string(kStranger), before));
    KillBoth();
    held.clear();
    ExpectUnharmed();
  }
}

}  // namespace
}  // namespace PmTest
