// Burdens that no peer of the manager makes: strangers, floods, and what happens to the machine.
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "base/sleep.h"
#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "bench/burdens.h"
#include "bench/restarted_service.h"
#include "sandbox/as_user.h"
#include "sandbox/cgroup_roots.h"
#include "sandbox/system_error.h"

namespace PmBench {
namespace {

using PmSandbox::App;
using PmSandbox::CheckStep;
using PmSandbox::LogReader;
using PmSandbox::Sandbox;

// A user without rights holds connections to each socket of the manager, and writes what he likes.
class Strangers : public Burden {
 public:
  Strangers(const Sandbox& sandbox, LogReader&) : sandbox_(sandbox) {
    sandbox.WriteSettings("watch_dog: {enable: false}\npmupload: {enable: true}\n");
  }
  void Renew() override {
    static constexpr const char* kSockets[] = {"/run/nexio/PROCMGR.sock", "/run/heartbeat.sock",
                                               "/run/process-manager/status.sock"};
    held_.clear();
    PmSandbox::AsUser(sandbox_, PmSandbox::kStranger, [&] {
      for (const char* const path : kSockets) {
        const ProcMgr::UnixAddress address(path);
        for (int i = 0; i < kEach; ++i) {
          for (const int type : {SOCK_SEQPACKET, SOCK_STREAM, SOCK_DGRAM}) {
            Knock(address, type, i);
          }
        }
      }
    });
  }
  void End() override { held_.clear(); }

 private:
  static constexpr int kEach = 40;

  // Every second one says nothing.
  void Knock(const ProcMgr::UnixAddress& address, int type, int number) {
    ProcMgr::UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(fd.Get(), address.Get(), address.Size()) == 0) {
      const std::string noise(number % 2 == 0 ? 0 : 5000, '\xff');
      (void)send(fd.Get(), noise.data(), noise.size(), MSG_NOSIGNAL);
      held_.push_back(std::move(fd));
    }
  }

  const Sandbox& sandbox_;
  std::vector<ProcMgr::UniqueFd> held_;
};

// Beats of a name that nobody knows, as many as there is room for.
class HeartFlood : public Burden {
 public:
  HeartFlood(const Sandbox& sandbox, LogReader&) : path_(sandbox.Outside("/run/heartbeat.sock")) {}
  ~HeartFlood() override { Stop(); }
  void Renew() override {
    if (!sender_.joinable()) {
      sender_ = std::thread([this] { Flood(); });
    }
  }
  void End() override { Stop(); }

 private:
  void Flood() {
    constexpr std::int64_t kFullNs = 100'000;
    const ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const ProcMgr::UnixAddress address(path_);
    while (!isOver_) {
      if (sendto(fd.Get(), "nobody", 6, 0, address.Get(), address.Size()) < 0) {
        ProcMgr::SleepNs(kFullNs);
      }
    }
  }
  void Stop() {
    isOver_ = true;
    if (sender_.joinable()) {
      sender_.join();
    }
  }

  const std::string path_;
  std::atomic<bool> isOver_ = false;
  std::thread sender_;
};

// There is no block left in /run: what stands there can't grow. A service can still make its
// socket.
class FullRun : public Burden {
 public:
  FullRun(const Sandbox& sandbox, LogReader&) : sandbox_(sandbox) {}
  void Renew() override {
    const Sandbox::Inside inside(sandbox_);
    struct statfs use {};
    CheckStep(statfs("/run", &use) == 0, "look at /run");
    Limit((use.f_blocks - use.f_bfree) * static_cast<unsigned long>(use.f_bsize));
  }
  void End() override {
    const Sandbox::Inside inside(sandbox_);
    Limit(1UL << 26);
  }

 private:
  static void Limit(unsigned long bytes) {
    const std::string options = "mode=755,size=" + std::to_string(bytes);
    CheckStep(mount("tmpfs", "/run", "tmpfs", MS_REMOUNT | MS_NOSUID, options.c_str()) == 0,
              "limit /run");
  }

  const Sandbox& sandbox_;
};

// The platform's groups have been taken away, with the manager in them.
class VanishedGroups : public Burden {
 public:
  VanishedGroups(const Sandbox& sandbox, LogReader&) : sandbox_(sandbox) {}
  void Renew() override {
    for (const char* const group : {"cpu/OTHER", "memory/OTHER", "cpuset/CtrlCPU"}) {
      const std::filesystem::path path = sandbox_.Outside("/sys/fs/cgroup/" + std::string(group));
      PmSandbox::Demand(PmSandbox::Eventually([&] { return IsGone(path); }),
                        std::string(group) + " can't be removed");
    }
  }

 private:
  static bool IsGone(const std::filesystem::path& group) {
    std::ifstream tasks(group / "tasks");
    for (pid_t pid = 0; tasks >> pid;) {
      std::ofstream(group.parent_path() / "tasks") << pid << std::flush;
    }
    return rmdir(group.c_str()) == 0 || errno == ENOENT;
  }

  const Sandbox& sandbox_;
};

// Services that do nothing any more.
class StoppedServices : public Burden {
 public:
  StoppedServices(const Sandbox& sandbox, LogReader&) : marks_(sandbox, "stopped") {}
  std::vector<App> Services() override {
    std::vector<App> apps;
    for (std::size_t i = 0; i < kServices; ++i) {
      apps.push_back(RestartedService("stopped" + std::to_string(i), marks_, {}));
    }
    return apps;
  }
  void Renew() override { Signal(SIGSTOP); }
  void End() override { Signal(SIGCONT); }

 private:
  static constexpr std::size_t kServices = 6;
  void Signal(int signal) {
    for (const Mark& mark : marks_.Await(kServices)) {
      CheckStep(kill(mark.pid, signal) == 0, "signal a service");
    }
  }

  Marks marks_;
};

constexpr BurdenKind kKinds[] = {
    {"strangers are at every socket", &MakeBurden<Strangers>},
    {"heartbeats of nobody flood in", &MakeBurden<HeartFlood>},
    {"/run is full", &MakeBurden<FullRun>},
    {"the cgroups have vanished", &MakeBurden<VanishedGroups>},
    {"six services are stopped", &MakeBurden<StoppedServices>},
};

}  // namespace

std::span<const BurdenKind> OutsideBurdens() {
  return kKinds;
}

}  // namespace PmBench
