// The commands that the operator service carries out. Each yields the exit status, and throws
// std::runtime_error, with words for a person, if it can't be asked.
#ifndef TOOLS_PMCTL_OPERATOR_COMMANDS_H
#define TOOLS_PMCTL_OPERATOR_COMMANDS_H

#include "tools/pmctl/options.h"

namespace PmCtl {

// `operation` is "start", "stop" or "restart". Names that aren't the operator's to move are left
// out, with a line that says whose they are; and what an application has not taken of the
// parameters gets a line too.
int Operate(const char* operation, const Options& options);
int Query(const Options& options);
// "load" or "reload".
int Load(const char* operation, const Options& options);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_OPERATOR_COMMANDS_H
