// Every body by its type, as it comes from the access manager and from another sender. What was
// unpacked whole must survive being packed and unpacked again.
//
// Input: a byte for the type, a byte whose lowest bit picks the sender, 8 bytes that are added to
// the true size of the body, the body.
#include <cstring>
#include <string>

#include "message/serialization.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::Require;

namespace {

using ProcMgr::Message::RequestMsg;
using ProcMgr::Message::RequestType;
namespace Codec = ProcMgr::Serialization;

// The names of records that came out of a body whose size is `size`; each takes a byte at least.
template <typename Record>
void CheckList(const std::vector<Record>& list, std::uint64_t size) {
  Require(list.size() <= Codec::kMaxRecords && list.size() <= size);
  for (const Record& info : list) {
    Require(info.appName.find('#') == std::string::npos);
  }
}

void FuzzTerm(const RequestMsg& frame) {
  std::vector<ProcMgr::Message::TermAppInfo> list;
  Codec::ProcMgrUnpackTermRequest(&frame, list);
  CheckList(list, frame.size);
  std::vector<Codec::PackedItem> packed;
  Codec::PieceList pieces;
  std::vector<ProcMgr::Message::TermAppInfo> again;
  if (list.empty() || !Codec::ProcMgrPackTermRequest(list, packed) ||
      !Codec::ProcMgrCombinePiecesMsg(frame.type, packed, pieces)) {
    return;
  }
  std::size_t count = 0;
  for (const RequestMsg& piece : pieces) {
    Codec::ProcMgrUnpackTermRequest(&piece, again);
    count += again.size();
  }
  Require(count == list.size());
}

template <typename Record, typename Unpack>
void FuzzStart(const RequestMsg& frame, const std::string& sender, Unpack unpack) {
  std::vector<Record> list;
  unpack(&frame, list, sender);
  CheckList(list, frame.size);
  for (const Record& info : list) {
    Require(info.argv.size() <= Codec::kMaxArguments && info.dynamicPara.size() <= 3);
    Require(sender != "iammgr" || info.dynamicPara.empty());
  }
}

void FuzzQuery(const RequestMsg& frame) {
  std::vector<std::string> names;
  Codec::ProcMgrUnpackQueryAppState(&frame, names);
  RequestMsg packed;
  Require(Codec::ProcMgrPackQueryAppState(names, packed));
  // What stands behind the last name is ignored.
  Require(names.empty() || std::memcmp(packed.data, frame.data, packed.size) == 0);
}

void FuzzStatus(const RequestMsg& frame) {
  std::map<std::string, int> status;
  if (Codec::ProcMgrUnpackAppDetailStatus(&frame, status)) {
    RequestMsg packed;
    std::map<std::string, int> again;
    Require(Codec::ProcMgrPackAppDetailStatus(status, packed));
    Require(Codec::ProcMgrUnpackAppDetailStatus(&packed, again) && again == status);
  }
}

void FuzzOneRecord(const RequestMsg& frame) {
  ProcMgr::Message::BaseServiceStateInfo state{77};
  ProcMgr::Message::AppExecInfo exec{"untouched", 77, 0, 0};
  ProcMgr::Message::StartupCfgInfo cfg{{}, "untouched"};
  Require(Codec::ProcMgrUnpackedBaseServiceStateRequest(&frame, state) || state.state == 77);
  Require(Codec::ProcMgrUnpackedAppExecInfoRequest(&frame, exec) || exec.appName == "untouched");
  Require(Codec::ProcMgrUnpackMatchDataAndPathRequest(&frame, cfg) || cfg.path == "untouched");
  ProcMgr::Message::HeartMsg heart;
  Codec::ProcMgrUnpackHeartMsg(&frame, heart);
  std::vector<ProcMgr::Message::AppStateInfo> states;
  Codec::ProcMgrUnpackedAppStateRequest(&frame, states);
  CheckList(states, frame.size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHead = 10;
  if (size < kHead || size - kHead > ProcMgr::Message::kFrameDataSize) {
    return 0;
  }
  RequestMsg frame;
  std::uint64_t extra = 0;
  std::memcpy(&extra, data + 2, sizeof(extra));
  frame.type = static_cast<RequestType>(data[0]);
  frame.size = size - kHead + extra;
  std::memcpy(frame.data, data + kHead, size - kHead);
  const std::string sender = (data[1] & 1) != 0 ? "iammgr" : "camera_service";

  switch (frame.type) {
    case RequestType::START_APP:
      FuzzStart<ProcMgr::Message::StartAppInfo>(frame, sender, Codec::ProcMgrUnpackStartRequest);
      break;
    case RequestType::RESTART_APP:
      FuzzStart<ProcMgr::Message::RestartAppInfo>(frame, sender,
                                                  Codec::ProcMgrUnpackRestartRequest);
      break;
    case RequestType::TERM_APP:
      FuzzTerm(frame);
      break;
    case RequestType::QUERY_APP_STATE:
      FuzzQuery(frame);
      break;
    case RequestType::APP_DETAIL_STATUS_REPORT:
      FuzzStatus(frame);
      break;
    default:
      FuzzOneRecord(frame);
      break;
  }
  return 0;
}
