// What an application has said last, where a log keeps it.
#ifndef TOOLS_PMCTL_LAST_LINES_H
#define TOOLS_PMCTL_LAST_LINES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace PmCtl {

// The last ten lines of these processes, oldest first and printable: from the journal where there
// is one, else from the end of the first of `files`, the syslog daemon's, that has any. Empty if
// neither is there, or may be read by this user.
[[nodiscard]] std::vector<std::string> LastLines(const std::vector<pid_t>& pids,
                                                 const std::vector<std::string>& files = {
                                                     "/var/log/syslog", "/var/log/messages"});

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_LAST_LINES_H
