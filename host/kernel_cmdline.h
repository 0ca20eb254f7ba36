// What the kernel command line steers: the base-service YAML, the optional base services, and the
// two switches of the watchdog.
//
// The words stand in comma lists behind three keys, for example
//   procmgr=nowatchdog,em,boot:small.yaml qelmode=kernel_utils reboot_reason=SUSPEND_FAIL
// docs/config-kernel-cmdline.md tells each word. Everything here runs on the boot thread before any
// other thread of the manager exists, and leaves its answers in HostContext. No failure stops the
// boot.
#ifndef HOST_KERNEL_CMDLINE_H
#define HOST_KERNEL_CMDLINE_H

#include <set>
#include <string>
#include <string_view>

#include "core/host_context.h"

namespace ProcMgr {

inline constexpr const char* kKernelCmdlineFile = "/proc/cmdline";
// Where "boot:" files and the fail-over file stand; with the trailing slash.
inline constexpr const char* kConfigDir = "/etc/zur/base-plat/process-manager/";

// Fills the process-wide HostContext: pid, switches, choice of the base-service YAML, child message
// pipe.
void InitHostContext();

// Tells the SELinux state in the log.
void UpdateSelinuxEnable(const HostContext& context);

// Reads the words of "procmgr" and "qelmode" from the file at `path` into `context`. A file that
// can't be read changes nothing.
void ParseKernelCmdline(HostContext& context, const std::string& path = kKernelCmdlineFile,
                        const std::string& configDir = kConfigDir);

// Reads the words of "reboot_reason"; a failed suspend or resume chooses the fail-over file. Run
// after ParseKernelCmdline, over whose choice this one wins.
void ParseRebootReason(HostContext& context, const std::string& path = kKernelCmdlineFile,
                       const std::string& configDir = kConfigDir);

// The two above on a text in memory.
void ParseKernelCmdlineText(HostContext& context, std::string_view text,
                            const std::string& configDir);
void ParseRebootReasonText(HostContext& context, std::string_view text,
                           const std::string& configDir);

// The words behind the first occurrence of `key` in `line`, up to the next blank, without the empty
// ones. The key is found inside a longer word, too, and the character behind it is skipped whatever
// it is. A key at the very end of the line has an empty list.
[[nodiscard]] std::set<std::string> SplitBootArg(std::string_view line, std::string_view key,
                                                 char delimiter);

// Replaces `path` by the base-service YAML that the kernel command line chose, if it did.
void UpdateStartupYaml(const HostContext& context, std::string& path);

// False if the manifest at `cfgPath` is that of an optional base service that the kernel command
// line didn't ask for. Notes the services that it lets through.
[[nodiscard]] bool IsOptionalServiceAllowed(HostContext& context, const std::string& cfgPath);

// Logs the optional services that were asked for and that no manifest brought. Run once after the
// last IsOptionalServiceAllowed.
void ReportMissingOptionalServices(const HostContext& context);

// Stores the board slot, of which no source exists: -1.
void GetBoardInfo();

// The name of a system state code; empty for an unknown one. Any thread. The daemon never calls it:
// it is for a platform that logs the states it is told.
[[nodiscard]] std::string GetSysState(unsigned long state);

}  // namespace ProcMgr

#endif  // HOST_KERNEL_CMDLINE_H
