// Packing and unpacking of one full frame of each kind. The log is switched off: a line costs more
// than a codec, and is the same for any.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "message/serialization.h"
#include "message/upload_msg.h"

namespace {

using ProcMgr::Message::RequestMsg;
using ProcMgr::Message::RequestType;
namespace Message = ProcMgr::Message;
namespace Codec = ProcMgr::Serialization;

// `make(i)` gives record number i; as many as fill one frame.
template <typename Record, typename Pack, typename Make>
std::vector<Record> Fill(RequestType type, Pack pack, Make make) {
  std::vector<Record> list;
  for (;;) {
    list.push_back(make(static_cast<int>(list.size())));
    std::vector<Codec::PackedItem> packed;
    Codec::PieceList pieces;
    if (!pack(list, packed) || !Codec::ProcMgrCombinePiecesMsg(type, packed, pieces) ||
        pieces.size() > 1) {
      list.pop_back();
      return list;
    }
  }
}

template <typename Record>
Record StartRecord(int i) {
  return {"application_" + std::to_string(i),
          {"--mode", "fast", "--channel", std::to_string(i)},
          {{0, {"/opt/platform/bin/application"}}, {2, {"LEVEL=info"}}}};
}

Message::TermAppInfo TermRecord(int i) {
  return {"application_" + std::to_string(i)};
}

Message::AppStateInfo StateRecord(int i) {
  return {"application_" + std::to_string(i), 10000 + i, 1000, 4, 0};
}

template <typename Record, typename Pack>
void PackList(benchmark::State& state, RequestType type, const std::vector<Record>& list,
              Pack pack) {
  std::uint64_t bytes = 0;
  while (state.KeepRunning()) {
    std::vector<Codec::PackedItem> packed;
    Codec::PieceList pieces;
    if (!pack(list, packed) || !Codec::ProcMgrCombinePiecesMsg(type, packed, pieces)) {
      state.SkipWithError("not packed");
      return;
    }
    bytes = pieces.front().size;
    benchmark::DoNotOptimize(pieces.data());
  }
  state.counters["records"] = static_cast<double>(list.size());
  state.counters["bytes"] = static_cast<double>(bytes);
}

template <typename Record, typename Pack, typename Unpack>
void UnpackList(benchmark::State& state, RequestType type, const std::vector<Record>& list,
                Pack pack, Unpack unpack) {
  std::vector<Codec::PackedItem> packed;
  Codec::PieceList pieces;
  if (!pack(list, packed) || !Codec::ProcMgrCombinePiecesMsg(type, packed, pieces)) {
    state.SkipWithError("not packed");
    return;
  }
  while (state.KeepRunning()) {
    std::vector<Record> read;
    unpack(&pieces.front(), read);
    if (read.size() != list.size()) {
      state.SkipWithError("records lost");
      return;
    }
    benchmark::DoNotOptimize(read.data());
  }
  state.counters["records"] = static_cast<double>(list.size());
  state.counters["bytes"] = static_cast<double>(pieces.front().size);
}

void BM_StartPack(benchmark::State& state) {
  const auto list = Fill<Message::StartAppInfo>(
      RequestType::START_APP, Codec::ProcMgrPackStartRequest, StartRecord<Message::StartAppInfo>);
  PackList(state, RequestType::START_APP, list, Codec::ProcMgrPackStartRequest);
}
BENCHMARK(BM_StartPack);

void BM_StartUnpack(benchmark::State& state) {
  const auto list = Fill<Message::StartAppInfo>(
      RequestType::START_APP, Codec::ProcMgrPackStartRequest, StartRecord<Message::StartAppInfo>);
  UnpackList(state, RequestType::START_APP, list, Codec::ProcMgrPackStartRequest,
             [](const RequestMsg* frame, std::vector<Message::StartAppInfo>& read) {
               Codec::ProcMgrUnpackStartRequest(frame, read, "camera_service");
             });
}
BENCHMARK(BM_StartUnpack);

void BM_TermPack(benchmark::State& state) {
  const auto list =
      Fill<Message::TermAppInfo>(RequestType::TERM_APP, Codec::ProcMgrPackTermRequest, TermRecord);
  PackList(state, RequestType::TERM_APP, list, Codec::ProcMgrPackTermRequest);
}
BENCHMARK(BM_TermPack);

void BM_TermUnpack(benchmark::State& state) {
  const auto list =
      Fill<Message::TermAppInfo>(RequestType::TERM_APP, Codec::ProcMgrPackTermRequest, TermRecord);
  UnpackList(state, RequestType::TERM_APP, list, Codec::ProcMgrPackTermRequest,
             Codec::ProcMgrUnpackTermRequest);
}
BENCHMARK(BM_TermUnpack);

void BM_AppStatePack(benchmark::State& state) {
  const auto list = Fill<Message::AppStateInfo>(RequestType::APP_STATE_REPORT,
                                                Codec::ProcMgrPackAppStateRequest, StateRecord);
  PackList(state, RequestType::APP_STATE_REPORT, list, Codec::ProcMgrPackAppStateRequest);
}
BENCHMARK(BM_AppStatePack);

void BM_AppStateUnpack(benchmark::State& state) {
  const auto list = Fill<Message::AppStateInfo>(RequestType::APP_STATE_REPORT,
                                                Codec::ProcMgrPackAppStateRequest, StateRecord);
  UnpackList(state, RequestType::APP_STATE_REPORT, list, Codec::ProcMgrPackAppStateRequest,
             Codec::ProcMgrUnpackedAppStateRequest);
}
BENCHMARK(BM_AppStateUnpack);

Message::StartupCfgInfo FullCfg() {
  Message::StartupCfgInfo info{{}, "/etc/platform/entries/camera.yaml"};
  for (int i = 1000; i < 1200; ++i) {
    info.matchData["key" + std::to_string(i)] = "value" + std::to_string(i);
  }
  return info;
}

void BM_StartupCfgPack(benchmark::State& state) {
  const Message::StartupCfgInfo info = FullCfg();
  PackList(state, RequestType::LOAD_STARTUP_CFG, std::vector<Message::StartupCfgInfo>{info},
           [](const auto& list, auto& packed) {
             return Codec::ProcMgrPackMatchDataAndPathRequest(list.front(), packed);
           });
}
BENCHMARK(BM_StartupCfgPack);

void BM_StartupCfgUnpack(benchmark::State& state) {
  const Message::StartupCfgInfo info = FullCfg();
  UnpackList(
      state, RequestType::LOAD_STARTUP_CFG, std::vector<Message::StartupCfgInfo>{info},
      [](const auto& list, auto& packed) {
        return Codec::ProcMgrPackMatchDataAndPathRequest(list.front(), packed);
      },
      [](const RequestMsg* frame, std::vector<Message::StartupCfgInfo>& read) {
        (void)Codec::ProcMgrUnpackMatchDataAndPathRequest(frame, read.emplace_back());
      });
}
BENCHMARK(BM_StartupCfgUnpack);

void BM_BaseServiceStatePack(benchmark::State& state) {
  PackList(state, RequestType::BASESERVICE_STATE_REPORT,
           std::vector<Message::BaseServiceStateInfo>{{2}}, [](const auto& list, auto& packed) {
             return Codec::ProcMgrPackBaseServiceStateRequest(list.front(), packed);
           });
}
BENCHMARK(BM_BaseServiceStatePack);

std::vector<std::string> FullNames() {
  return std::vector<std::string>(180, "application_name_x");
}

void BM_QueryPack(benchmark::State& state) {
  const std::vector<std::string> names = FullNames();
  RequestMsg frame;
  while (state.KeepRunning()) {
    if (!Codec::ProcMgrPackQueryAppState(names, frame)) {
      state.SkipWithError("not packed");
      return;
    }
    benchmark::DoNotOptimize(frame);
  }
  state.counters["bytes"] = static_cast<double>(frame.size);
}
BENCHMARK(BM_QueryPack);

void BM_QueryUnpack(benchmark::State& state) {
  RequestMsg frame;
  if (!Codec::ProcMgrPackQueryAppState(FullNames(), frame)) {
    state.SkipWithError("not packed");
    return;
  }
  while (state.KeepRunning()) {
    std::vector<std::string> names;
    Codec::ProcMgrUnpackQueryAppState(&frame, names);
    benchmark::DoNotOptimize(names.data());
  }
  state.counters["bytes"] = static_cast<double>(frame.size);
}
BENCHMARK(BM_QueryUnpack);

std::map<std::string, int> FullStatus() {
  std::map<std::string, int> status;
  for (int i = 1000; i < 1160; ++i) {
    status["application_" + std::to_string(i)] = i % 3;
  }
  return status;
}

void BM_DetailStatusPack(benchmark::State& state) {
  const std::map<std::string, int> status = FullStatus();
  RequestMsg frame;
  while (state.KeepRunning()) {
    if (!Codec::ProcMgrPackAppDetailStatus(status, frame)) {
      state.SkipWithError("not packed");
      return;
    }
    benchmark::DoNotOptimize(frame);
  }
  state.counters["bytes"] = static_cast<double>(frame.size);
}
BENCHMARK(BM_DetailStatusPack);

void BM_DetailStatusUnpack(benchmark::State& state) {
  RequestMsg frame;
  if (!Codec::ProcMgrPackAppDetailStatus(FullStatus(), frame)) {
    state.SkipWithError("not packed");
    return;
  }
  while (state.KeepRunning()) {
    std::map<std::string, int> status;
    if (!Codec::ProcMgrUnpackAppDetailStatus(&frame, status)) {
      state.SkipWithError("not unpacked");
      return;
    }
    benchmark::DoNotOptimize(status.size());
  }
  state.counters["bytes"] = static_cast<double>(frame.size);
}
BENCHMARK(BM_DetailStatusUnpack);

void BM_UploadRequestUnpack(benchmark::State& state) {
  PmUpload::LoadAppInfo info{"/bin/a", "a", {}, {}, 12, 34, false, 0};
  info.rwGroups.assign(350, "group_0001");
  PmUpload::UploadMsg msg;
  if (!PmUpload::PackInfoRequest(info, msg)) {
    state.SkipWithError("not packed");
    return;
  }
  while (state.KeepRunning()) {
    PmUpload::LoadAppInfo read;
    if (!PmUpload::UnPackInfoRequest(&msg, read)) {
      state.SkipWithError("not unpacked");
      return;
    }
    benchmark::DoNotOptimize(read.rwGroups.data());
  }
  state.counters["bytes"] = static_cast<double>(msg.size);
}
BENCHMARK(BM_UploadRequestUnpack);

void BM_UploadResponsePack(benchmark::State& state) {
  const std::vector<std::string> groups(1024, "group001");
  while (state.KeepRunning()) {
    std::string text;
    PmUpload::PackResponseToPmupload(true, false, groups, 0, text);
    benchmark::DoNotOptimize(text.data());
  }
}
BENCHMARK(BM_UploadResponsePack);

}  // namespace

int main(int argc, char** argv) {
  ProcMgr::SetLogSink([](int, const char*) {});
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
