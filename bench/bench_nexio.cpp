// What the messaging library costs beside a bare socket pair that does the same in the same run.
//
// Prints each figure beside its bound, and ends with 1 if one misses it. To be run as root: it
// makes its own /run.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/sleep.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "message/nexio.h"
#include "platform/nexio/nexio_peer.h"

namespace {

using ProcMgr::UniqueFd;

constexpr std::size_t kFrame = 3984;
constexpr std::size_t kHeader = 16;
constexpr int kFramesPerPeer = 2000;
constexpr double kBound = 0.7;

void Must(bool ok, const char* what) {
  if (!ok) {
    std::perror(what);
    std::exit(2);
  }
}

struct Pair {
  Pair() {
    int ends[2];
    Must(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    a.Reset(ends[0]);
    b.Reset(ends[1]);
  }
  UniqueFd a;
  UniqueFd b;
};

void SendAll(int fd, const std::vector<char>& packet) {
  Must(send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size()),
       "send");
}

// False at the end of the connection.
bool ReceiveOne(int fd, std::vector<char>& packet) {
  return recv(fd, packet.data(), packet.size(), 0) > 0;
}

void BareRoundTrip(benchmark::State& state) {
  const Pair pair;
  std::thread answerer([&pair] {
    std::vector<char> packet(kHeader + kFrame);
    while (ReceiveOne(pair.b.Get(), packet)) {
      SendAll(pair.b.Get(), packet);
    }
  });
  std::vector<char> packet(kHeader + kFrame);
  while (state.KeepRunning()) {
    SendAll(pair.a.Get(), packet);
    Must(ReceiveOne(pair.a.Get(), packet), "receive");
  }
  (void)shutdown(pair.a.Get(), SHUT_RDWR);
  answerer.join();
  state.SetItemsProcessed(state.iterations());
}

// Counts what has arrived; the benchmark waits for its total.
class Tally {
 public:
  void Add() {
    if (count_.fetch_add(1) + 1 == goal_.load()) {
      const ProcMgr::MutexLock lock(mutex_);
      reached_.NotifyAll();
    }
  }
  void SetGoal(std::int64_t frames) { goal_ = count_ + frames; }
  void Await() {
    const ProcMgr::MutexLock lock(mutex_);
    while (count_.load() < goal_.load()) {
      reached_.Wait(mutex_);
    }
  }

 private:
  std::atomic<std::int64_t> count_ = 0;
  std::atomic<std::int64_t> goal_ = 0;
  ProcMgr::Mutex mutex_;
  ProcMgr::CondVar reached_;
};

// Has each of `peers` threads run `send` with its number, and waits until all has arrived.
void Flood(Tally& tally, int peers, const std::function<void(int)>& send) {
  tally.SetGoal(std::int64_t{peers} * kFramesPerPeer);
  std::vector<std::thread> senders;
  senders.reserve(static_cast<std::size_t>(peers));
  for (int peer = 0; peer < peers; ++peer) {
    senders.emplace_back([&send, peer] {
      for (int i = 0; i < kFramesPerPeer; ++i) {
        send(peer);
      }
    });
  }
  for (std::thread& sender : senders) {
    sender.join();
  }
  tally.Await();
}

void BareFrames(benchmark::State& state) {
  const auto peers = static_cast<int>(state.range(0));
  std::vector<Pair> pairs(static_cast<std::size_t>(peers));
  Tally tally;
  std::vector<std::thread> receivers;
  receivers.reserve(pairs.size());
  for (const Pair& pair : pairs) {
    receivers.emplace_back([&pair, &tally] {
      std::vector<char> packet(kHeader + kFrame);
      while (ReceiveOne(pair.b.Get(), packet)) {
        tally.Add();
      }
    });
  }
  const std::vector<char> packet(kHeader + kFrame);
  while (state.KeepRunning()) {
    Flood(tally, peers, [&pairs, &packet](int peer) {
      SendAll(pairs[static_cast<std::size_t>(peer)].a.Get(), packet);
    });
  }
  for (const Pair& pair : pairs) {
    (void)shutdown(pair.a.Get(), SHUT_RDWR);
  }
  for (std::thread& receiver : receivers) {
    receiver.join();
  }
  state.SetItemsProcessed(state.iterations() * peers * kFramesPerPeer);
}

// A server and channels to it, all in this process.
class Link {
 public:
  Link(int peers, ProcMgr::NexioRequestCallback onRequest) {
    ProcMgr::NexioServerParam param;
    param.serverName = "bench";
    param.requestCallback = std::move(onRequest);
    server_ = ProcMgr::NexioCreateServer(param);
    Must(server_ > 0, "NexioCreateServer");
    for (int i = 0; i < peers; ++i) {
      ProcMgr::NexioOpenParam open;
      open.peerName = "bench";
      open.gid = getgid();
      channels_.push_back(ProcMgr::NexioOpen(open));
      Must(channels_.back() > 0, "NexioOpen");
    }
  }
  ~Link() {
    for (const int channel : channels_) {
      Must(ProcMgr::NexioClosePipe(channel) == 0, "close");
    }
    while (ProcMgr::NexioClosePipe(server_) == ProcMgr::kNexioCallback) {
      sched_yield();
    }
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  [[nodiscard]] int Channel(int peer) const { return channels_[static_cast<std::size_t>(peer)]; }

 private:
  int server_ = 0;
  std::vector<int> channels_;
};

void NexioRoundTrip(benchmark::State& state) {
  const Link link(1, [](int fd, const ProcMgr::NexioRequest* request) {
    if (request != nullptr) {
      ProcMgr::NexioResponse response;
      response.seq = request->seq;
      response.data = const_cast<void*>(request->data);
      response.size = request->size;
      Must(ProcMgr::NexioSendResponse(fd, response) == 0, "NexioSendResponse");
    }
  });
  std::vector<char> frame(kFrame);
  while (state.KeepRunning()) {
    ProcMgr::NexioRequest request;
    request.data = frame.data();
    request.size = kFrame;
    ProcMgr::NexioResponse response;
    response.data = frame.data();
    response.size = kFrame;
    Must(ProcMgr::NexioRPCSync(link.Channel(0), request, response) == 0, "NexioRPCSync");
  }
  state.SetItemsProcessed(state.iterations());
}

void NexioFrames(benchmark::State& state) {
  const auto peers = static_cast<int>(state.range(0));
  Tally tally;
  const Link link(peers, [&tally](int, const ProcMgr::NexioRequest* request) {
    if (request != nullptr) {
      tally.Add();
    }
  });
  const std::vector<char> frame(kFrame);
  while (state.KeepRunning()) {
    Flood(tally, peers, [&link, &frame](int peer) {
      ProcMgr::NexioRequest request;
      request.data = frame.data();
      request.size = kFrame;
      int result = 0;
      while ((result = ProcMgr::NexioSendRequest(link.Channel(peer), request)) ==
             ProcMgr::kNexioBusy) {
        Must(ProcMgr::NexioAwaitRoom(link.Channel(peer), 10'000) == 0, "NexioAwaitRoom");
      }
      Must(result == 0, "NexioSendRequest");
    });
  }
  state.SetItemsProcessed(state.iterations() * peers * kFramesPerPeer);
}

// How long a waiting NexioOpen takes to notice its peer. The peer is a socket by hand: it comes as
// a new file (0), or its file is there and it begins to listen (1).
void Arrival(benchmark::State& state) {
  constexpr std::int64_t kSettleNs = 20'000'000;
  ProcMgr::NexioServerParam directoryMaker;
  directoryMaker.serverName = "bench";
  const int maker = ProcMgr::NexioCreateServer(directoryMaker);
  const sockaddr_un address{AF_UNIX, "/run/nexio/arrival.sock"};
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  while (state.KeepRunning()) {
    const UniqueFd peer(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const bool early = state.range(0) == 1;
    Must(!early || bind(peer.Get(), generic, sizeof(address)) == 0, "bind");
    ProcMgr::SteadyTime opened;
    std::thread opener([&opened] {
      ProcMgr::NexioOpenParam open;
      open.peerName = "arrival";
      open.gid = getgid();
      open.timeout = 60'000;
      const int fd = ProcMgr::NexioOpen(open);
      opened = ProcMgr::SteadyNow();
      Must(fd > 0 && ProcMgr::NexioClosePipe(fd) == 0, "NexioOpen");
    });
    ProcMgr::SleepNs(kSettleNs);
    const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
    Must(early || bind(peer.Get(), generic, sizeof(address)) == 0, "bind");
    Must(listen(peer.Get(), 1) == 0, "listen");
    opener.join();
    state.SetIterationTime(std::chrono::duration<double>(opened - begin).count());
    (void)unlink(address.sun_path);
  }
  Must(ProcMgr::NexioClosePipe(maker) == 0, "close");
  state.SetItemsProcessed(state.iterations());
}

// Keeps every rate beside what the console shows.
class Rates : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        rates_[run.run_name.function_name + "/" + run.run_name.args].push_back(
            run.counters.at("items_per_second"));
      }
    }
  }

  // The median over the repetitions.
  [[nodiscard]] double Median(const std::string& name) {
    std::vector<double>& rates = rates_[name];
    if (rates.empty()) {
      return 0;
    }
    std::sort(rates.begin(), rates.end());
    return rates[rates.size() / 2];
  }

 private:
  std::map<std::string, std::vector<double>> rates_;
};

bool Compare(Rates& rates, const char* what, const std::string& bare, const std::string& nexio) {
  const double floor = rates.Median(bare);
  const double ours = rates.Median(nexio);
  if (floor <= 0 || ours <= 0) {
    return true;  // Filtered out on the command line.
  }
  const bool holds = ours / floor >= kBound;
  std::printf("%-28s bare %10.0f/s  nexio %10.0f/s  ratio %.2f  (bound %.2f) %s\n", what, floor,
              ours, ours / floor, kBound, holds ? "ok" : "MISSED");
  return holds;
}

bool CompareArrival(Rates& rates, const char* what, const std::string& name) {
  constexpr double kLimitMs = 10;
  const double rate = rates.Median(name);
  if (rate <= 0) {
    return true;
  }
  const bool holds = 1000 / rate <= kLimitMs;
  std::printf("%-28s %.2f ms  (bound %.0f ms) %s\n", what, 1000 / rate, kLimitMs,
              holds ? "ok" : "MISSED");
  return holds;
}

void MakePrivateRun() {
  Must(unshare(CLONE_NEWNS) == 0, "unshare");
  Must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
  Must(mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0, "mount /run");
}

}  // namespace

// The bare pair and the library take turns, so that a change of the machine's load meets both.
BENCHMARK(BareRoundTrip)->UseRealTime();
BENCHMARK(NexioRoundTrip)->UseRealTime();
BENCHMARK(BareFrames)->Arg(1)->Arg(8)->UseRealTime();
BENCHMARK(NexioFrames)->Arg(1)->Arg(8)->UseRealTime();
BENCHMARK(Arrival)->Arg(0)->Arg(1)->UseManualTime()->Iterations(10);

int main(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  std::string repetitions = "--benchmark_repetitions=7";
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  arguments.insert(arguments.begin() + 1, {repetitions.data(), interleave.data()});
  auto count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  MakePrivateRun();
  Rates rates;
  benchmark::RunSpecifiedBenchmarks(&rates);
  bool holds = Compare(rates, "round trip", "BareRoundTrip/", "NexioRoundTrip/");
  holds = Compare(rates, "frames, 1 peer", "BareFrames/1", "NexioFrames/1") && holds;
  holds = Compare(rates, "frames, 8 peers", "BareFrames/8", "NexioFrames/8") && holds;
  holds = CompareArrival(rates, "arrival, new file", "Arrival/0") && holds;
  holds = CompareArrival(rates, "arrival, begins to listen", "Arrival/1") && holds;
  return holds ? 0 : 1;
}
