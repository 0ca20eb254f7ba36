// The commands that ask the manager itself. Each yields the exit status, and throws CantAsk if the
// manager can't be asked.
#ifndef TOOLS_PMCTL_MANAGER_COMMANDS_H
#define TOOLS_PMCTL_MANAGER_COMMANDS_H

#include "tools/pmctl/options.h"

namespace PmCtl {

// With `watch` only Ctrl-C, or the manager's end, ends it.
int Status(const Options& options);
int Show(const Options& options);
int Why(const Options& options);
int Boot(const Options& options);
// The names alone, for a shell's completion.
int Names(const Options& options);
// With `once` it draws once; else only Ctrl-C, or the manager's end, ends it.
int Top(const Options& options);
int Shutdown(const Options& options);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_MANAGER_COMMANDS_H
