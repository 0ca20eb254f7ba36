// Looking at other processes through /proc.
#ifndef SANDBOX_PROCESS_TABLE_H
#define SANDBOX_PROCESS_TABLE_H

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

namespace PmSandbox {

// Every process id that /proc shows just now, rising.
std::vector<pid_t> AllProcesses();

// What /proc/PID/stat tells; pid 0 if there is no such process.
struct ProcessStat {
  pid_t pid = 0;
  pid_t parent = 0;
  char state = '?';              // 'Z' for a zombie, 'T' for a stopped one.
  std::uint64_t startTicks = 0;  // With the pid it names a process for good.
};
ProcessStat ReadStat(pid_t pid);

// The children that run, or the zombies, which wait to be reaped.
std::vector<pid_t> Children(pid_t parent, bool zombies);

// The targets of the open descriptors, as "N -> TARGET", in rising order of N.
std::vector<std::string> OpenDescriptors(pid_t pid);
std::vector<pid_t> Threads(pid_t pid);

// The value of a "Key:\tVALUE" line of /proc/PID/status; empty if there is none.
std::string StatusField(pid_t pid, const std::string& key);

// Whether the process ignores the signal; false if there is none.
bool Ignores(pid_t pid, int signal);

// Sends one process a signal. False, as for one that isn't there, for a pid that names none: what a
// failed look-up has yielded is to the kernel the whole group of the caller, or everybody.
[[nodiscard]] bool Kill(pid_t pid, int signal = SIGKILL);

// Kills `pid` and waits until it is no more than a zombie; reaps it if it is a child of ours.
// Yields false if it was still there after a while.
[[nodiscard]] bool KillAndAwait(pid_t pid);

}  // namespace PmSandbox

#endif  // SANDBOX_PROCESS_TABLE_H
