// From text bodies to records.
#include <optional>

#include "core/log.h"
#include "message/dynamic_block.h"
#include "message/frame_body.h"
#include "message/serialization.h"
#include "message/text_fields.h"

namespace ProcMgr::Serialization {
namespace {

// The access manager's start and restart frames are read without their dynamic blocks.
constexpr const char* kWithoutDynamicBlock = "iammgr";
constexpr std::uint32_t kMaxPairs = 102399;

// How many empty records end a list behind the one just read; none if it goes on.
using EmptyTail = std::optional<std::size_t>;

void WarnBreaksOff(const Message::RequestMsg& frame, std::size_t records) {
  LogWarning("PROCMGR : frame body breaks off: type=%u, size=%lu bytes, whole records=%zu",
             static_cast<std::uint32_t>(frame.type), frame.size, records);
}

// How many whole start records, `limit` at most, stand at `in`, whatever their values.
std::size_t CountStartRecords(FieldReader in, std::size_t limit) {
  std::size_t count = 0;
  while (count < limit) {
    std::uint32_t arguments = 0;
    (void)in.SkipString();
    (void)in.Number(arguments);
    while (arguments > 0 && in.SkipString()) {
      --arguments;
    }
    SkipDynamicPara(in);
    if (in.Failed()) {
      break;
    }
    ++count;
  }
  return count;
}

// Unpacks a frame with a list. `refuse` logs a count beyond the limit; `read` fills one record.
template <typename Record, typename Refuse, typename Read>
void UnpackList(const Message::RequestMsg& frame, std::vector<Record>& list, Refuse refuse,
                Read read) {
  const std::optional<std::string_view> body = BodyOf(frame);
  if (!body.has_value()) {
    return;
  }
  FieldReader in(*body);
  std::uint32_t count = 0;
  (void)in.Number(count);  // A count that can't be read stays 0.
  if (count > kMaxRecords) {
    refuse(count);
    return;
  }
  // The list grows with the records that are really there, not with the count.
  std::vector<Record> records;
  for (bool more = !in.Failed(); more && records.size() < count;) {
    Record record;
    const EmptyTail emptyTail = read(in, record, count - records.size() - 1);
    if (in.Failed()) {
      break;
    }
    records.push_back(std::move(record));
    if (emptyTail.has_value()) {
      records.resize(records.size() + *emptyTail);
      more = false;
    }
  }
  if (in.Failed()) {
    WarnBreaksOff(frame, records.size());
  }
  list = std::move(records);
}

// Reads a start or restart record, with `behind` others to follow it.
template <typename Record, typename RefuseArguments>
EmptyTail ReadStartRecord(FieldReader& in, Record& info, std::size_t behind, bool withDynamicBlock,
                          RefuseArguments refuseArguments) {
  std::uint32_t arguments = 0;
  if (!in.String(info.appName) || !in.Number(arguments)) {
    return std::nullopt;
  }
  if (arguments > kMaxArguments) {
    refuseArguments(arguments);
    return std::nullopt;
  }
  for (; arguments > 0 && !in.Failed(); --arguments) {
    (void)in.String(info.argv.emplace_back());
  }
  if (!withDynamicBlock || in.Failed()) {
    return std::nullopt;
  }
  FieldReader block = in;
  if (UnPackDynamicPara(in, info.dynamicPara) || in.Failed()) {
    return std::nullopt;
  }
  SkipDynamicPara(block);
  return block.Failed() ? 0 : CountStartRecords(block, behind);
}

// Unpacks a frame with one record. The count before it isn't looked at, but must be there.
template <typename Record, typename Read>
bool UnpackOne(const Message::RequestMsg& frame, Record& info, Read read) {
  const std::optional<std::string_view> body = BodyOf(frame);
  if (!body.has_value()) {
    return false;
  }
  FieldReader in(*body);
  std::uint32_t count = 0;
  (void)in.Number(count);
  Record record = info;
  read(in, record);
  if (in.Failed()) {
    WarnBreaksOff(frame, 0);
    return false;
  }
  info = std::move(record);
  return true;
}

// Reads what a report of a state and one of an execution begin with. A pid travels as its unsigned
// bits.
template <typename Record>
void ReadProcess(FieldReader& in, Record& info) {
  std::uint32_t pid = 0;
  (void)in.String(info.appName);
  (void)in.Number(pid);
  (void)in.Number(info.gid);
  (void)in.Number(info.state);
  info.pid = static_cast<std::int32_t>(pid);
}

}  // namespace

void ProcMgrUnpackStartRequest(const Message::RequestMsg* frame,
                               std::vector<Message::StartAppInfo>& list,
                               const std::string& sender) {
  const auto refuse = [](std::uint32_t count) {
    LogError("ProcMgr : ProcMgrMaster UnpackStartRequest err: big startAppListSize=%u", count);
  };
  const auto refuseArguments = [](std::uint32_t count) {
    LogError("ProcMgr : ProcMgrMaster : UnpackStartRequest err, argvSize=%u", count);
  };
  const bool withDynamicBlock = sender != kWithoutDynamicBlock;
  UnpackList(*frame, list, refuse,
             [&](FieldReader& in, Message::StartAppInfo& info, std::size_t behind) {
               return ReadStartRecord(in, info, behind, withDynamicBlock, refuseArguments);
             });
}

void ProcMgrUnpackRestartRequest(const Message::RequestMsg* frame,
                                 std::vector<Message::RestartAppInfo>& list,
                                 const std::string& sender) {
  const auto refuse = [](std::uint32_t count) {
    LogError("ProcMgr : ProcMgrMaster UnpackRestartRequest err: big restartAppListSize=%u", count);
  };
  const auto refuseArguments = [](std::uint32_t count) {
    LogError("ProcMgr : ProcMgrMaster : UnpackRestartRequest err, argvSize=%u", count);
  };
  const bool withDynamicBlock = sender != kWithoutDynamicBlock;
  UnpackList(*frame, list, refuse,
             [&](FieldReader& in, Message::RestartAppInfo& info, std::size_t behind) {
               return ReadStartRecord(in, info, behind, withDynamicBlock, refuseArguments);
             });
}

void ProcMgrUnpackTermRequest(const Message::RequestMsg* frame,
                              std::vector<Message::TermAppInfo>& list) {
  const auto refuse = [](std::uint32_t count) {
    LogError("ProcMgr : ProcMgrMaster UnpackTermRequest err: big AppListSize=%u", count);
  };
  UnpackList(*frame, list, refuse,
             [](FieldReader& in, Message::TermAppInfo& info, std::size_t) -> EmptyTail {
               (void)in.String(info.appName);
               return std::nullopt;
             });
}

void ProcMgrUnpackedAppStateRequest(const Message::RequestMsg* frame,
                                    std::vector<Message::AppStateInfo>& list) {
  const auto refuse = [](std::uint32_t count) {
    LogError("ProcMgr : ProcMgrMaster UnpackedAppStateRequest err: big AppListSize=%u", count);
  };
  UnpackList(*frame, list, refuse,
             [](FieldReader& in, Message::AppStateInfo& info, std::size_t) -> EmptyTail {
               ReadProcess(in, info);
               (void)in.Number(info.eioFlag);
               return std::nullopt;
             });
}

bool ProcMgrUnpackedBaseServiceStateRequest(const Message::RequestMsg* frame,
                                            Message::BaseServiceStateInfo& info) {
  return UnpackOne(*frame, info, [](FieldReader& in, Message::BaseServiceStateInfo& record) {
    (void)in.Number(record.state);
  });
}

bool ProcMgrUnpackedAppExecInfoRequest(const Message::RequestMsg* frame,
                                       Message::AppExecInfo& info) {
  return UnpackOne(*frame, info,
                   [](FieldReader& in, Message::AppExecInfo& record) { ReadProcess(in, record); });
}

bool ProcMgrUnpackMatchDataAndPathRequest(const Message::RequestMsg* frame,
                                          Message::StartupCfgInfo& info) {
  return UnpackOne(*frame, info, [](FieldReader& in, Message::StartupCfgInfo& record) {
    std::uint32_t pairs = 0;
    (void)in.String(record.path);
    (void)in.Number(pairs);
    if (pairs > kMaxPairs) {
      return;
    }
    std::string key;
    std::string value;
    for (; pairs > 0 && in.String(key) && in.String(value); --pairs) {
      record.matchData.emplace(key, value);
    }
  });
}

}  // namespace ProcMgr::Serialization
