// What pmctl writes to standard output.
#ifndef TOOLS_PMCTL_SCREEN_H
#define TOOLS_PMCTL_SCREEN_H

#include <string>

namespace PmCtl {

// On a terminal, unless the environment says NO_COLOR.
[[nodiscard]] bool IsColoured();
[[nodiscard]] bool IsTerminal();

// Throws std::runtime_error if it can't be written.
void Write(const std::string& text);
// The same in place of what a terminal shows, cut to its size; anything else gets the whole text
// behind what it has.
void Redraw(const std::string& text);

}  // namespace PmCtl

#endif  // TOOLS_PMCTL_SCREEN_H
