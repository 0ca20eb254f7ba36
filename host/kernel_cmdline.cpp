#include "host/kernel_cmdline.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "base/child_msg_pipe.h"
#include "base/small_file.h"
#include "base/standard_path.h"
#include "base/text_lines.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

constexpr std::string_view kProcMgrKey = "procmgr";
constexpr std::string_view kQelModeKey = "qelmode";
constexpr std::string_view kRebootReasonKey = "reboot_reason";
constexpr char kDelimiter = ',';
constexpr std::string_view kBootWord = "boot:";
constexpr std::string_view kFailOverFile = "startup_procmgr_suspend_resume_fail.yaml";

// Word of the kernel command line to the file name of the optional service that it asks for.
const std::map<std::string, std::string> optionalServiceTable = {{"em", "emService.yaml"}};

// A file that isn't there or can't be opened is no news: the defaults stand. One that is too long
// to be a kernel command line deserves a line.
std::string ReadCmdline(const std::string& path) {
  std::string text;
  if (const int error = ReadSmallFile(path, kConfigFileLimit, text); error == EFBIG) {
    LogWarningRouted("ProcMgr: cmdline file=%s is too long, use defaults", path.c_str());
  }
  return text;
}

void ParseWatchDogSwitch(HostContext& context, const std::set<std::string>& words) {
  if (words.contains("nowatchdog")) {
    context.disableWatchDog_ = true;
  }
  LogInfoRouted("ProcMgr: cmdline disableWatchDog_=%u", context.disableWatchDog_ ? 1U : 0U);
}

void CollectOptionalServices(HostContext& context, const std::set<std::string>& words) {
  for (const auto& [word, fileName] : optionalServiceTable) {
    if (words.contains(word)) {
      context.optionalServices_.emplace(fileName, false);
      LogInfoRouted("ProcMgr: %s need enable", fileName.c_str());
    }
  }
}

void ParseBootYaml(HostContext& context, const std::set<std::string>& words,
                   const std::string& configDir) {
  for (const std::string& word : words) {
    const std::size_t marker = word.find(kBootWord);
    if (marker == std::string::npos) {
      continue;
    }
    const std::string path = configDir + word.substr(marker + kBootWord.size());
    if (StandardizationPath(path, context.startupYaml_)) {
      LogInfoRouted("ProcMgr: cmdline cfg startup yaml: %s", context.startupYaml_.c_str());
    } else {
      LogErrorRouted(
          "ProcMgr: cmdline cfg startup yaml %s standardizationPath failed,use default path",
          path.c_str());
    }
  }
}

void ParseQelcoreSwitch(HostContext& context, const std::set<std::string>& words) {
  if (words.contains("kernel_utils")) {
    context.qelcoreEnable = true;
  }
  LogInfoRouted("ProcMgr: cmdline qelcoreEnable=%u", context.qelcoreEnable ? 1U : 0U);
}

void UseFailOverYaml(HostContext& context, const std::string& configDir) {
  const std::string path = configDir + std::string(kFailOverFile);
  if (StandardizationPath(path, context.startupYaml_)) {
    LogInfoRouted("ProcMgr: cmdline cfg startup yaml: %s", context.startupYaml_.c_str());
  } else {
    LogWarningRouted("ProcMgr: cmdline cfg startup yaml %s standardizationPath failed",
                     path.c_str());
  }
}

}  // namespace

void InitHostContext() {
  HostContext& context = HostContext::Instance();
  context.pid_ = getpid();
  UpdateSelinuxEnable(context);
  ParseKernelCmdline(context);
  ParseRebootReason(context);
  CreateChildMsgPipe();
}

void UpdateSelinuxEnable(const HostContext& context) {
  LogInfoRouted("pm UpdateSelinuxEnable success: enable=%d", context.selinuxEnable_ ? 1 : 0);
}

void ParseKernelCmdline(HostContext& context, const std::string& path,
                        const std::string& configDir) {
  ParseKernelCmdlineText(context, ReadCmdline(path), configDir);
}

void ParseRebootReason(HostContext& context, const std::string& path,
                       const std::string& configDir) {
  ParseRebootReasonText(context, ReadCmdline(path), configDir);
}

void ParseKernelCmdlineText(HostContext& context, std::string_view text,
                            const std::string& configDir) {
  while (!text.empty()) {
    const std::string_view line = TakeLine(text);
    const std::set<std::string> words = SplitBootArg(line, kProcMgrKey, kDelimiter);
    ParseWatchDogSwitch(context, words);
    CollectOptionalServices(context, words);
    ParseBootYaml(context, words, configDir);
    ParseQelcoreSwitch(context, SplitBootArg(line, kQelModeKey, kDelimiter));
  }
}

void ParseRebootReasonText(HostContext& context, std::string_view text,
                           const std::string& configDir) {
  while (!text.empty()) {
    const std::string_view line = TakeLine(text);
    for (const std::string& word : SplitBootArg(line, kRebootReasonKey, kDelimiter)) {
      if (word.find("SUSPEND_FAIL") != std::string::npos ||
          word.find("RESUME_FAIL") != std::string::npos) {
        UseFailOverYaml(context, configDir);
      }
    }
  }
}

std::set<std::string> SplitBootArg(std::string_view line, std::string_view key, char delimiter) {
  std::set<std::string> words;
  const std::string keyText(key);
  const std::size_t found = line.find(key);
  if (found == std::string_view::npos) {
    LogWarningRouted("key=%s not found in cmdline.", keyText.c_str());
    return words;
  }
  std::string_view value = line.substr(found + key.size());
  if (value.empty()) {
    LogWarningRouted("key=%s has no value in cmdline.", keyText.c_str());
    return words;
  }
  value.remove_prefix(1);
  value = value.substr(0, value.find(' '));
  LogInfoRouted("ProcMgr boot args, %s=%s", keyText.c_str(), std::string(value).c_str());
  while (!value.empty()) {
    const std::string_view word = value.substr(0, value.find(delimiter));
    if (!word.empty()) {
      words.emplace(word);
    }
    value.remove_prefix(std::min(word.size() + 1, value.size()));
  }
  return words;
}

void UpdateStartupYaml(const HostContext& context, std::string& path) {
  if (!context.startupYaml_.empty()) {
    path = context.startupYaml_;
    LogInfoRouted("ProcMgr: update pm startup yaml from cmdline, new path: %s", path.c_str());
  }
}

bool IsOptionalServiceAllowed(HostContext& context, const std::string& cfgPath) {
  const auto entry = std::find_if(
      optionalServiceTable.begin(), optionalServiceTable.end(),
      [&cfgPath](const auto& row) { return cfgPath.find(row.second) != std::string::npos; });
  if (entry == optionalServiceTable.end()) {
    return true;
  }
  const auto service = context.optionalServices_.find(entry->second);
  if (service == context.optionalServices_.end()) {
    LogInfo("ProcMgr: %s will not enable as not configured in cmdline", cfgPath.c_str());
    return false;
  }
  service->second = true;
  return true;
}

void ReportMissingOptionalServices(const HostContext& context) {
  for (const auto& [fileName, seen] : context.optionalServices_) {
    if (!seen) {
      LogError("%s need enable, but not rightly configured", fileName.c_str());
    }
  }
}

void GetBoardInfo() {
  HostContext& context = HostContext::Instance();
  context.slotId_ = -1;
  LogWarningRouted("pm Get board info success slotId_=%d", context.slotId_);
}

std::string GetSysState(unsigned long state) {
  static const std::map<unsigned long, std::string> names = {
      {0, "OFF"},     {1, "WORKING"},     {2, "SUSPEND"},
      {3, "UPGRADE"}, {4, "CALIBRATION"}, {128, "DELAY_BIND_CORE"}};
  const auto name = names.find(state);
  return name == names.end() ? std::string() : name->second;
}

}  // namespace ProcMgr
