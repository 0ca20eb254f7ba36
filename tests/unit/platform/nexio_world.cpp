#include "tests/unit/platform/nexio_world.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "sandbox/process_table.h"

namespace PmTest {
namespace {

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

void Echo(int fd, const ProcMgr::NexioRequest* request) {
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

}  // namespace

const Sandbox& Box() {
  return world->sandbox;
}
const LogReader& Log() {
  return world->log;
}

const std::vector<std::string>& InheritedDescriptors() {
  return world->inherited;
}

ProcMgr::NexioRequestCallback Into(LineRecorder& told) {
  return [&told](int, const ProcMgr::NexioRequest* request) {
    told.Add(request == nullptr
                 ? "end"
                 : std::string(static_cast<const char*>(request->data), request->size));
  };
}

EchoServer::EchoServer(const std::string& name, ProcMgr::NexioConnectCallback connectCallback,
                       std::uint32_t maxClients) {
  ProcMgr::NexioServerParam param;
  param.serverName = name.c_str();
  param.connectCallback = std::move(connectCallback);
  param.requestCallback = &Echo;
  param.maxClients = maxClients;
  handle_ = ProcMgr::NexioCreateServer(param);
  EXPECT_GE(handle_, 1) << name;
}

EchoServer::~EchoServer() {
  EXPECT_TRUE(Close(handle_));
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

ProcMgr::NexioRequest RequestOf(const std::string& text) {
  ProcMgr::NexioRequest request;
  request.data = text.data();
  request.size = static_cast<std::uint32_t>(text.size());
  return request;
}

int SendText(int fd, const std::string& text) {
  return ProcMgr::NexioSendRequest(fd, RequestOf(text));
}

std::string Ask(int fd, const std::string& text) {
  std::string answer(ProcMgr::kNexioMaxData, '\0');
  ProcMgr::NexioResponse response;
  response.data = answer.data();
  response.size = ProcMgr::kNexioMaxData;
  if (const int result = ProcMgr::NexioRPCSync(fd, RequestOf(text), response); result < 0) {
    return "error " + std::to_string(result);
  }
  answer.resize(response.size);
  return answer;
}

Channel::Channel(const std::string& name, ProcMgr::NexioRequestCallback callback)
    : fd(OpenTo(name, std::move(callback))) {
  EXPECT_GE(fd, 1) << name;
}

Channel::~Channel() {
  (void)Close(fd);  // The test may have closed it.
}

RawChannel::RawChannel(const std::string& name, ProcMgr::NexioRequestCallback callback)
    : server(Box(), name, getgid()),
      channel(name, std::move(callback)),
      peer(server.AcceptGreeted().value()) {}

std::size_t DescriptorCount() {
  return OpenDescriptors(getpid()).size();
}

}  // namespace PmTest
