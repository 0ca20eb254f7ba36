#include "agent/request_frames.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <set>
#include <string_view>
#include <utility>

#include "base/names.h"

namespace ProcMgr::AgentFrames {
namespace {

using Message::RequestType;
using Serialization::PackedItem;

// The keys of dynamic values: path, device function, environment.
constexpr int kLastDynamicKey = 2;

// Nothing is escaped on the wire: a '#' would end the text early and shift every field behind it.
// A zero byte would cut it short where the manager hands it to the kernel.
bool IsText(std::string_view text) {
  return text.find('#') == std::string_view::npos && text.find('\0') == std::string_view::npos;
}

bool IsName(std::string_view name) {
  return !name.empty() && IsText(name);
}

bool AreTexts(const std::vector<std::string>& texts) {
  return std::all_of(texts.begin(), texts.end(), [](const std::string& t) { return IsText(t); });
}

Result CheckDynamicPara(const Message::DynamicPara& values, bool mayHaveValues) {
  for (const auto& [key, list] : values) {
    if (key < 0 || key > kLastDynamicKey || !mayHaveValues || !AreTexts(list)) {
      return Result::kInvalidArgument;
    }
    if (list.size() > Serialization::kMaxArguments) {
      return Result::kTooLarge;
    }
  }
  return Result::kOk;
}

template <typename Record>
Result CheckRecord(const Record& record, bool mayHaveValues) {
  if (!IsName(record.appName) || !AreTexts(record.argv)) {
    return Result::kInvalidArgument;
  }
  if (record.argv.size() > Serialization::kMaxArguments) {
    return Result::kTooLarge;
  }
  return CheckDynamicPara(record.dynamicPara, mayHaveValues);
}

// The items are whole in number, but those of the window's size or more would be left out of the
// frames with no more than a warning.
Result Combine(RequestType type, bool packedAll, std::vector<PackedItem>& packed,
               PieceList& frames) {
  const bool fits =
      packedAll && std::all_of(packed.begin(), packed.end(), [](const PackedItem& item) {
        return item.first < Serialization::kWindowLimit;
      });
  if (!fits) {
    return Result::kTooLarge;
  }
  return Serialization::ProcMgrCombinePiecesMsg(type, packed, frames) ? Result::kOk
                                                                      : Result::kInvalidArgument;
}

// Of a frame from the access manager the receiving side reads no dynamic values, not even their
// count, and so loses its way after the first record: each record gets a frame of its own.
Result CombineStart(RequestType type, bool packedAll, bool oneEach, std::vector<PackedItem>& packed,
                    PieceList& frames) {
  frames.clear();
  if (!oneEach) {
    return Combine(type, packedAll, packed, frames);
  }
  for (PackedItem& item : packed) {
    std::vector<PackedItem> one{std::move(item)};
    if (const Result result = Combine(type, packedAll, one, frames); result != Result::kOk) {
      return result;
    }
  }
  return packedAll ? Result::kOk : Result::kTooLarge;
}

template <typename Record, typename Packer>
Result StartLikeFrames(RequestType type, const std::vector<Record>& list, const std::string& sender,
                       Packer packer, PieceList& frames) {
  const bool isAccessManager = sender == kAccessService;
  if (list.empty()) {
    return Result::kInvalidArgument;
  }
  for (const Record& record : list) {
    if (const Result result = CheckRecord(record, !isAccessManager); result != Result::kOk) {
      return result;
    }
  }
  std::vector<PackedItem> packed;
  const bool packedAll = packer(list, packed);
  return CombineStart(type, packedAll, isAccessManager, packed, frames);
}

}  // namespace

Result StartFrames(const std::vector<Message::StartAppInfo>& list, const std::string& sender,
                   PieceList& frames) {
  return StartLikeFrames(RequestType::START_APP, list, sender,
                         &Serialization::ProcMgrPackStartRequest, frames);
}

Result RestartFrames(const std::vector<Message::RestartAppInfo>& list, const std::string& sender,
                     PieceList& frames) {
  return StartLikeFrames(RequestType::RESTART_APP, list, sender,
                         &Serialization::ProcMgrPackRestartRequest, frames);
}

Result TermFrames(const std::vector<std::string>& names, PieceList& frames) {
  if (names.empty() || !std::all_of(names.begin(), names.end(), IsName)) {
    return Result::kInvalidArgument;
  }
  std::vector<Message::TermAppInfo> list;
  std::transform(names.begin(), names.end(), std::back_inserter(list),
                 [](const std::string& name) { return Message::TermAppInfo{name}; });
  std::vector<PackedItem> packed;
  const bool packedAll = Serialization::ProcMgrPackTermRequest(list, packed);
  frames.clear();
  return Combine(RequestType::TERM_APP, packedAll, packed, frames);
}

Result StateFrames(ServiceState state, PieceList& frames) {
  const auto number = static_cast<std::uint32_t>(state);
  if (number > static_cast<std::uint32_t>(ServiceState::kGoingDown)) {
    return Result::kInvalidArgument;
  }
  std::vector<PackedItem> packed;
  const bool packedAll = Serialization::ProcMgrPackBaseServiceStateRequest({number}, packed);
  frames.clear();
  return Combine(RequestType::BASESERVICE_STATE_REPORT, packedAll, packed, frames);
}

Result ExecutionFrames(const Message::AppExecInfo& info, PieceList& frames) {
  if (!IsName(info.appName)) {
    return Result::kInvalidArgument;
  }
  std::vector<PackedItem> packed;
  const bool packedAll = Serialization::ProcMgrPackAppExecInfoRequest(info, packed);
  frames.clear();
  return Combine(RequestType::APP_EXECUTION_REPORT, packedAll, packed, frames);
}

Result StartupCfgFrame(RequestType type, const Message::StartupCfgInfo& info,
                       Message::RequestMsg& frame) {
  const bool texts =
      std::all_of(info.matchData.begin(), info.matchData.end(),
                  [](const auto& pair) { return IsText(pair.first) && IsText(pair.second); });
  if (!IsText(info.path) || !texts) {
    return Result::kInvalidArgument;
  }
  std::vector<PackedItem> packed;
  PieceList frames;
  const bool packedAll = Serialization::ProcMgrPackMatchDataAndPathRequest(info, packed);
  const Result result = Combine(type, packedAll, packed, frames);
  if (result == Result::kOk) {
    frame = frames.front();
  }
  return result;
}

Result QueryFrames(const std::vector<std::string>& names, std::vector<QueryFrame>& frames) {
  // A count in front; for each name its length, its bytes and its status.
  constexpr std::size_t kCountSize = 4;
  constexpr std::size_t kNameCost = 8;
  if (names.empty() || !std::all_of(names.begin(), names.end(), IsName)) {
    return Result::kInvalidArgument;
  }
  frames.clear();
  std::size_t size = Message::kFrameDataSize;
  for (const std::string& name : std::set<std::string>(names.begin(), names.end())) {
    if (kCountSize + kNameCost + name.size() > Message::kFrameDataSize) {
      return Result::kTooLarge;
    }
    size += kNameCost + name.size();
    if (size > Message::kFrameDataSize) {
      frames.emplace_back();
      size = kCountSize + kNameCost + name.size();
    }
    frames.back().names.push_back(name);
  }
  for (QueryFrame& query : frames) {
    if (!Serialization::ProcMgrPackQueryAppState(query.names, query.frame)) {
      return Result::kTooLarge;
    }
  }
  return Result::kOk;
}

}  // namespace ProcMgr::AgentFrames
