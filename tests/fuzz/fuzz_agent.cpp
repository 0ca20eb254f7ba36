// The agent's side of the channel: connections that come, displace each other and break, frames of
// every type and packets that are none. Input: a byte a step, then what the step needs.
#include <cstring>
#include <iterator>
#include <memory>

#include "agent/process_manager_agent.h"
#include "message/request_msg.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/nexio_stage.h"

using PmTest::FuzzBytes;
using PmTest::Require;
using PmTest::Stage;

namespace {

void Deliver(int fd, const void* data, std::size_t size) {
  const ProcMgr::NexioRequest request{1, data, static_cast<std::uint32_t>(size)};
  Stage().request(fd, &request);
}

ProcMgr::Message::RequestMsg FrameOf(FuzzBytes& input) {
  ProcMgr::Message::RequestMsg frame;
  frame.type = static_cast<ProcMgr::Message::RequestType>(input.Byte() % 12);
  const std::uint64_t extra = input.Byte() % 8 == 0 ? input.Byte() * 4096U : 0U;
  const std::string_view body = input.Take(input.Byte());
  std::memcpy(frame.data, body.data(), body.size());
  frame.size = body.size() + extra;
  return frame;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzBytes input(data, size);
  bool isConnected = false;
  ProcMgr::Agent::Options options;
  options.name = "fuzz";
  options.callbacks.connected = [&] { isConnected = true; };
  options.callbacks.disconnected = [&] { isConnected = false; };
  options.callbacks.appStates = [&](const std::vector<ProcMgr::Message::AppStateInfo>& changes) {
    Require(isConnected && !changes.empty());
    for (const ProcMgr::Message::AppStateInfo& change : changes) {
      Require(change.appName.find('#') == std::string::npos);
    }
  };
  options.callbacks.appStatus = [&](const ProcMgr::Agent::StatusMap&) { Require(isConnected); };
  std::unique_ptr<ProcMgr::Agent> agent;
  Require(ProcMgr::Agent::Create(options, agent) == ProcMgr::Result::kOk);
  Stage().open.clear();
  int last = 0;
  while (!input.IsEmpty()) {
    const int step = input.Byte();
    if (step % 8 == 0 || Stage().open.empty()) {
      Stage().open.insert(++last);
      Stage().connect(last, "PROCMGR", 7);
    } else {
      const auto at = step / 8 % static_cast<int>(Stage().open.size());
      const int fd = *std::next(Stage().open.begin(), at);
      if (step % 8 == 1) {
        Stage().request(fd, nullptr);
      } else if (step % 8 == 2) {
        const std::string_view packet = input.Take(input.Byte());
        Deliver(fd, packet.data(), packet.size());
      } else {
        const ProcMgr::Message::RequestMsg frame = FrameOf(input);
        Deliver(fd, &frame, sizeof(frame));
      }
    }
    Require(agent->IsConnected() == isConnected && Stage().open.size() <= 1);
    Require(isConnected == Stage().open.contains(last));
  }
  agent.reset();
  Stage().connect = nullptr;
  Stage().request = nullptr;
  return 0;
}
