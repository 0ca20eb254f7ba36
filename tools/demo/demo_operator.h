// A person at a terminal of the board.
#ifndef TOOLS_DEMO_DEMO_OPERATOR_H
#define TOOLS_DEMO_DEMO_OPERATOR_H

#include <string>

#include "sandbox/sandbox.h"

namespace Demo {

// Runs applications with pmctl, shows each command with its output, and throws if one of them
// doesn't end as it should.
void ShowOperator(const PmSandbox::Sandbox& sandbox);

// Takes a program's right to be run away, shows how pmctl tells that, and gives it back. Throws as
// above.
void ShowFault(const PmSandbox::Sandbox& sandbox);

// Shows where the boot's time went, and what runs now.
void ShowPicture(const PmSandbox::Sandbox& sandbox);

// Ends the manager and all that it has started. Throws if pmctl doesn't say so.
void ShowShutdown(const PmSandbox::Sandbox& sandbox);

// Shows with pmctl that an application which came up before its owner is up and has one. Throws if
// not.
void ShowHandOver(const PmSandbox::Sandbox& sandbox, const std::string& name);

}  // namespace Demo

#endif  // TOOLS_DEMO_DEMO_OPERATOR_H
