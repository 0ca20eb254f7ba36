#include "tests/unit/platform/nexio_world.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "tests/support/process_table.h"

namespace PmTest {
namespace {

using ProcMgr::MutexLock;

struct World {
  // What the process was started with.
  std::vector<std::string> inherited = OpenDescriptors(getpid());
  Sandbox sandbox;
  LogReader log{sandbox};
  Sandbox::Inside inside{sandbox};
};

std::unique_ptr<World> world;

class WorldEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    world = std::make_unique<World>();
    // The library starts at its first use, with descriptors of its own: tests that count them must
    // find it started, also when they run alone.
    ProcMgr::NexioOpenParam nobody;
    nobody.peerName = "nobody";
    ASSERT_EQ(ProcMgr::NexioOpen(nobody), ProcMgr::kNexioTimeout);
  }
  void TearDown() override { world.reset(); }
};

// Handed over to the framework, which destroys it.
testing::Environment* const kEnvironment =
    testing::AddGlobalTestEnvironment(std::make_unique<WorldEnvironment>().release());

template <typename Condition>
bool AwaitUnder(ProcMgr::Mutex& mutex, ProcMgr::CondVar& changed, const Condition& condition)
    REQUIRES(mutex) {
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
  while (!condition() && changed.WaitUntil(mutex, deadline)) {
  }
  return condition();
}

}  // namespace

const Sandbox& Box() {
  return world->sandbox;
}
const LogReader& Log() {
  return world->log;
}

void Recorder::Add(int fd, const ProcMgr::NexioRequest* request) {
  Event event;
  event.fd = fd;
  if (request != nullptr) {
    event.seq = request->seq;
    event.data.emplace(static_cast<const char*>(request->data), request->size);
  }
  const MutexLock lock(mutex_);
  events_.push_back(std::move(event));
  added_.NotifyAll();
}

std::vector<Recorder::Event> Recorder::Await(std::size_t count) const {
  const MutexLock lock(mutex_);
  (void)AwaitUnder(mutex_, added_,
                   [this, count]() NO_THREAD_SAFETY_ANALYSIS { return events_.size() >= count; });
  return events_;
}

void Gate::Pass() {
  const MutexLock lock(mutex_);
  ++arrivals_;
  changed_.NotifyAll();
  while (!open_) {
    changed_.Wait(mutex_);
  }
}

void Gate::Open() {
  const MutexLock lock(mutex_);
  open_ = true;
  changed_.NotifyAll();
}

bool Gate::AwaitArrivals(int count) const {
  const MutexLock lock(mutex_);
  return AwaitUnder(mutex_, changed_,
                    [this, count]() NO_THREAD_SAFETY_ANALYSIS { return arrivals_ >= count; });
}

EchoServer::EchoServer(const std::string& name, ProcMgr::NexioRequestCallback callback,
                       std::uint32_t maxClients) {
  ProcMgr::NexioServerParam param;
  param.serverName = name.c_str();
  param.requestCallback = callback ? std::move(callback) : &EchoServer::Echo;
  param.maxClients = maxClients;
  handle_ = ProcMgr::NexioCreateServer(param);
  EXPECT_GE(handle_, 1) << name;
}

EchoServer::~EchoServer() {
  EXPECT_TRUE(Close(handle_));
}

void EchoServer::Echo(int fd, const ProcMgr::NexioRequest* request) {
  if (request == nullptr) {
    EXPECT_EQ(ProcMgr::NexioClosePipe(fd), 0);
    return;
  }
  ProcMgr::NexioResponse response;
  response.seq = request->seq;
  response.data = const_cast<void*>(request->data);
  response.size = request->size;
  // The client may have gone meanwhile.
  (void)ProcMgr::NexioSendResponse(fd, response);
}

int OpenTo(const std::string& name, ProcMgr::NexioRequestCallback callback,
           std::chrono::milliseconds timeout) {
  ProcMgr::NexioOpenParam param;
  param.peerName = name.c_str();
  param.requestCallback = std::move(callback);
  param.timeout = static_cast<std::uint32_t>(timeout.count());
  param.gid = getgid();
  return ProcMgr::NexioOpen(param);
}

bool Close(int fd) {
  int result = 0;
  return Eventually([fd, &result] {
           result = ProcMgr::NexioClosePipe(fd);
           return result != ProcMgr::kNexioCallback;
         }) &&
         result == 0;
}

int SendText(int fd, const std::string& text) {
  ProcMgr::NexioRequest request;
  request.data = text.data();
  request.size = static_cast<std::uint32_t>(text.size());
  return ProcMgr::NexioSendRequest(fd, request);
}

std::string Ask(int fd, const std::string& text) {
  ProcMgr::NexioRequest request;
  request.data = text.data();
  request.size = static_cast<std::uint32_t>(text.size());
  std::string answer(ProcMgr::kNexioMaxData, '\0');
  ProcMgr::NexioResponse response;
  response.data = answer.data();
  response.size = ProcMgr::kNexioMaxData;
  if (const int result = ProcMgr::NexioRPCSync(fd, request, response); result < 0) {
    return "error " + std::to_string(result);
  }
  answer.resize(response.size);
  return answer;
}

std::size_t DescriptorCount() {
  return OpenDescriptors(getpid()).size();
}

std::vector<std::string> LeakyDescriptors() {
  std::vector<std::string> leaky;
  const auto& inherited = world->inherited;
  for (const std::string& entry : OpenDescriptors(getpid())) {
    const int flags = fcntl(std::stoi(entry), F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0 &&
        std::find(inherited.begin(), inherited.end(), entry) == inherited.end()) {
      leaky.push_back(entry);
    }
  }
  return leaky;
}

}  // namespace PmTest
