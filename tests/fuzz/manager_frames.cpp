#include "tests/fuzz/manager_frames.h"

#include <algorithm>
#include <iterator>

#include "message/serialization.h"

namespace PmTest {

using ProcMgr::Message::RequestMsg;
using ProcMgr::Message::RequestType;
namespace Message = ProcMgr::Message;
using namespace ProcMgr::Serialization;

namespace {

std::string PacketOf(const RequestMsg& frame) {
  return {reinterpret_cast<const char*>(&frame), sizeof(frame)};
}

template <typename Info>
std::vector<Info> MakeEntries(FuzzBytes& input) {
  constexpr std::array kArguments = {"--fast", "loud", "a;b"};
  std::vector<Info> list(input.Byte() % 4);
  for (Info& info : list) {
    info.appName = MakeName(input);
    const std::uint8_t extras = input.Byte();
    if (extras % 4 != 0) {
      info.argv = {kArguments[extras % 4 - 1]};
    }
    if (extras / 4 % 2 != 0) {
      info.dynamicPara[0] = {extras / 8 % 2 != 0 ? "/bin/sh" : "/bin/absent"};
    }
    if (extras / 16 % 2 != 0) {
      info.dynamicPara[2] = {extras / 32 % 2 != 0 ? "KEY=low" : "KEY"};
    }
  }
  return list;
}

// False if such a body isn't text.
bool PackText(FuzzBytes& input, RequestType type, std::vector<PackedItem>& items) {
  switch (type) {
    case RequestType::START_APP:
      return ProcMgrPackStartRequest(MakeEntries<Message::StartAppInfo>(input), items);
    case RequestType::RESTART_APP:
      return ProcMgrPackRestartRequest(MakeEntries<Message::RestartAppInfo>(input), items);
    case RequestType::TERM_APP:
      return ProcMgrPackTermRequest({{MakeName(input)}, {MakeName(input)}}, items);
    case RequestType::BASESERVICE_STATE_REPORT:
      return ProcMgrPackBaseServiceStateRequest({input.Byte() % 5U}, items);
    case RequestType::APP_EXECUTION_REPORT:
      return ProcMgrPackAppExecInfoRequest({MakeName(input), 1, 1, input.Byte() % 2U}, items);
    case RequestType::LOAD_STARTUP_CFG:
    case RequestType::RELOAD_STARTUP_CFG: {
      const char* const board = input.Byte() % 2 != 0 ? "large" : "small";
      return ProcMgrPackMatchDataAndPathRequest({{{"board", board}}, "/entries.yaml"}, items);
    }
    default:
      return false;
  }
}

}  // namespace

std::string MakeName(FuzzBytes& input) {
  constexpr std::uint8_t kFirstOther = 0xf0;
  const std::uint8_t which = input.Byte();
  return which < kFirstOther ? kAppNames[which % kAppNames.size()]
                             : std::string(input.Take(which % 16));
}

std::string MakeFrame(FuzzBytes& input, RequestType type) {
  std::vector<PackedItem> items;
  PieceList pieces;
  if (PackText(input, type, items) && ProcMgrCombinePiecesMsg(type, items, pieces)) {
    return PacketOf(pieces.front());
  }
  RequestMsg frame;
  if (type == RequestType::HEART_MSG) {
    ProcMgrPackHeartMsg({input.Byte(), 0}, frame);
  } else if (type == RequestType::QUERY_APP_STATE) {
    (void)ProcMgrPackQueryAppState({MakeName(input), MakeName(input)}, frame);  // They fit.
  } else {
    frame.type = static_cast<RequestType>(input.Byte() % 12);
    const std::string_view body = input.Take(input.Byte());
    std::copy(body.begin(), body.end(), std::begin(frame.data));
    frame.size = body.size() + (input.Byte() % 8 == 0 ? input.Byte() * 64U : 0U);
  }
  return PacketOf(frame);
}

std::vector<std::string> NamesIn(const RequestMsg& frame, const std::string& sender) {
  std::vector<std::string> names;
  const auto add = [&names](const auto& list) {
    for (const auto& info : list) {
      names.push_back(info.appName);
    }
  };
  if (frame.type == RequestType::START_APP) {
    std::vector<Message::StartAppInfo> list;
    ProcMgrUnpackStartRequest(&frame, list, sender);
    add(list);
  } else if (frame.type == RequestType::RESTART_APP) {
    std::vector<Message::RestartAppInfo> list;
    ProcMgrUnpackRestartRequest(&frame, list, sender);
    add(list);
  } else if (frame.type == RequestType::TERM_APP) {
    std::vector<Message::TermAppInfo> list;
    ProcMgrUnpackTermRequest(&frame, list);
    add(list);
  } else if (frame.type == RequestType::QUERY_APP_STATE) {
    ProcMgrUnpackQueryAppState(&frame, names);
  }
  return names;
}

}  // namespace PmTest
