// Registrations, beats and the passing of time in any order, against the obvious way of counting.
// Input: four bytes a step, the operation with the name, the group, the time, the datagram's end.
#include <map>
#include <string>
#include <vector>

#include "platform/heartbeat/heartbeat_table.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzBytes;
using PmTest::Require;

namespace {

using namespace ProcMgr::HeartBeat;

struct Promise {
  gid_t gid = 0;
  ProcMgr::SteadyTime deadline;
  bool isLost = false;
};
using Promises = std::map<std::string, Promise>;

void Beat(Table& table, Promises& promises, const std::string& name, gid_t gid,
          ProcMgr::SteadyTime now, const Limits& limits) {
  std::vector<News> news;
  const BeatResult result = table.Beat(name, gid, 7, now, news);
  const auto promise = promises.find(name);
  const bool counts = promise != promises.end() && promise->second.gid == gid;
  Require((result == BeatResult::kCounted) == counts);
  Require((result == BeatResult::kUnknown) == (promise == promises.end()));
  Require(news.size() == (counts && promise->second.isLost ? 1U : 0U));
  if (counts) {
    promise->second = {gid, now + limits.silence, false};
    Require(table.LastBeat(name) == now);
  }
}

void Expire(Table& table, Promises& promises, ProcMgr::SteadyTime now) {
  std::vector<News> news;
  table.Expire(now, news);
  std::size_t lost = 0;
  for (auto& [name, promise] : promises) {
    if (!promise.isLost && promise.deadline <= now) {
      promise.isLost = true;
      Require(lost < news.size() && news[lost].name == name && table.IsCurrent(news[lost]));
      ++lost;
    }
    Require(promise.isLost || table.NextCheck() <= promise.deadline);
  }
  Require(lost == news.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzBytes input(data, size);
  const Limits limits;
  Table table(limits);
  Promises promises;
  ProcMgr::SteadyTime now{};
  while (!input.IsEmpty()) {
    const int operation = input.Byte();
    const gid_t gid = input.Byte() % 3;
    now += std::chrono::milliseconds(input.Byte() * 16);
    const std::string name = std::string(1, static_cast<char>('a' + operation / 64)) +
                             std::string(input.Take(input.Byte() % 4));
    switch (operation % 4) {
      case 0:
        table.Register(name, gid, nullptr, now);
        promises[name] = {gid, now + limits.firstBeat, false};
        break;
      case 1:
        table.Unregister(name);
        promises.erase(name);
        break;
      default:
        Beat(table, promises, name, gid, now, limits);
        break;
    }
    Expire(table, promises, now);
  }
  return 0;
}
