#include "tools/pmctl/screen.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace PmCtl {

bool IsTerminal() {
  return isatty(STDOUT_FILENO) == 1;
}

bool IsColoured() {
  const char* const noColour = std::getenv("NO_COLOR");
  return IsTerminal() && (noColour == nullptr || *noColour == '\0');
}

void Write(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw std::runtime_error("can't write the answer");
  }
}

void Redraw(const std::string& text) {
  Write(IsTerminal() ? "\033[H\033[2J" + text : text);
}

}  // namespace PmCtl
