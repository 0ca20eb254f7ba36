// The pipe through which a child tells, before its exec, what it could not set up.
#ifndef BASE_CHILD_MSG_PIPE_H
#define BASE_CHILD_MSG_PIPE_H

#include <sys/types.h>

#include <string_view>

namespace ProcMgr {

// Makes the pipe and files its ends in HostContext. Children inherit both, on purpose: these are
// the only descriptors of the manager without close-on-exec. A failure is logged and leaves -1:
// writers and the reader then skip their work. Boot thread.
void CreateChildMsgPipe();

// Closes what is open. Called when no thread reads or forks any more.
void CloseChildMsgPipe();

// Sends "app=NAME,pid=PID,TEXT" with one write, cut off behind 4096 bytes. For a child before its
// exec: it never waits, so a text that a full pipe has no room for is lost, whatever other children
// do to the ends that they inherited. ReadChildMsg tells how many were.
void WriteChildMsg(std::string_view appName, pid_t pid, std::string_view text);

// Waits for the children's next texts, at most 899 bytes, and logs them. Blocks until a child
// writes. Called by the child message thread alone.
void ReadChildMsg();

}  // namespace ProcMgr

#endif  // BASE_CHILD_MSG_PIPE_H
