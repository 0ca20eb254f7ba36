// From records to items of text.
#include "core/log.h"
#include "message/dynamic_block.h"
#include "message/serialization.h"
#include "message/text_fields.h"

namespace ProcMgr::Serialization {
namespace {

// Yields false, with `packed` and `text` as they were, for a text that is too long.
bool Append(std::string& text, std::vector<PackedItem>& packed) {
  if (text.size() >= PM_PIPE_BUF_MAX) {
    return false;
  }
  const auto length = static_cast<unsigned int>(text.size());
  packed.emplace_back(length, std::move(text));
  return true;
}

template <typename Record>
std::string StartText(const Record& info) {
  FieldWriter out;
  out.String(info.appName);
  out.Number(info.argv.size());
  for (const std::string& argument : info.argv) {
    out.String(argument);
  }
  PackDynamicPara(out, info.dynamicPara);
  return out.Take();
}

// What a report of a state and one of an execution begin with. A pid travels as its unsigned bits.
template <typename Record>
void WriteProcess(FieldWriter& out, const Record& info) {
  out.String(info.appName);
  out.Number(static_cast<std::uint32_t>(info.pid));
  out.Number(info.gid);
  out.Number(info.state);
}

}  // namespace

bool ProcMgrPackStartRequest(const std::vector<Message::StartAppInfo>& list,
                             std::vector<PackedItem>& packed) {
  for (const Message::StartAppInfo& info : list) {
    LogInfo("ProcMgrAgent : PackStartRequest app name: %s", info.appName.c_str());
    std::string text = StartText(info);
    if (!Append(text, packed)) {
      LogError(
          "ProcMgrAgent : PackStartRequest failed: appName=%s size=%lu exceeds the "
          "PM_PIPE_BUF_MAX!!",
          info.appName.c_str(), text.size());
      return false;
    }
  }
  return true;
}

bool ProcMgrPackRestartRequest(const std::vector<Message::RestartAppInfo>& list,
                               std::vector<PackedItem>& packed) {
  for (const Message::RestartAppInfo& info : list) {
    LogInfo("ProcMgrAgent : PackrestartRequest app name: %s", info.appName.c_str());
    std::string text = StartText(info);
    if (!Append(text, packed)) {
      LogError(
          "ProcMgrAgent : PackRestartRequest failed: appName=%s size=%lu exceeds the "
          "PM_PIPE_BUF_MAX!!",
          info.appName.c_str(), text.size());
      return false;
    }
  }
  return true;
}

bool ProcMgrPackTermRequest(const std::vector<Message::TermAppInfo>& list,
                            std::vector<PackedItem>& packed) {
  for (const Message::TermAppInfo& info : list) {
    LogInfo("ProcMgrAgent : PackTermRequest app name=%s", info.appName.c_str());
    FieldWriter out;
    out.String(info.appName);
    std::string text = out.Take();
    if (!Append(text, packed)) {
      LogError(
          "ProcMgrAgent : PackTermRequest failed: appName=%s size=%lu exceeds the "
          "PM_PIPE_BUF_MAX!!",
          info.appName.c_str(), text.size());
      return false;
    }
  }
  return true;
}

bool ProcMgrPackAppStateRequest(const std::vector<Message::AppStateInfo>& list,
                                std::vector<PackedItem>& packed) {
  for (const Message::AppStateInfo& info : list) {
    FieldWriter out;
    WriteProcess(out, info);
    out.Number(info.eioFlag);
    std::string text = out.Take();
    if (!Append(text, packed)) {
      LogError(
          "ProcMgrAgent : PackAppStateRequest failed=%s, size=%lu bytes beyond the "
          "PM_PIPE_BUF_MAX!!",
          info.appName.c_str(), text.size());
      return false;
    }
  }
  return true;
}

bool ProcMgrPackBaseServiceStateRequest(Message::BaseServiceStateInfo info,
                                        std::vector<PackedItem>& packed) {
  FieldWriter out;
  out.Number(info.state);
  std::string text = out.Take();
  if (!Append(text, packed)) {
    LogError("ProcMgrAgent : PackBaseServiceStateRequest failed: beyond the PM_PIPE_BUF_MAX!!");
    return false;
  }
  return true;
}

bool ProcMgrPackAppExecInfoRequest(const Message::AppExecInfo& info,
                                   std::vector<PackedItem>& packed) {
  FieldWriter out;
  WriteProcess(out, info);
  std::string text = out.Take();
  if (!Append(text, packed)) {
    LogError("ProcMgrAgent : PackExecStateRequest failed: beyond the PM_PIPE_BUF_MAX!!");
    return false;
  }
  return true;
}

bool ProcMgrPackMatchDataAndPathRequest(const Message::StartupCfgInfo& info,
                                        std::vector<PackedItem>& packed) {
  FieldWriter out;
  out.String(info.path);
  out.Number(info.matchData.size());
  for (const auto& [key, value] : info.matchData) {
    out.String(key);
    out.String(value);
  }
  std::string text = out.Take();
  if (!Append(text, packed)) {
    LogError("ProcMgrAgent : PackMatchDataAndPathRequest failed: beyond the PM_PIPE_BUF_MAX!!");
    return false;
  }
  return true;
}

}  // namespace ProcMgr::Serialization
