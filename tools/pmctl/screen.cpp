#include "tools/pmctl/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace PmCtl {
namespace {

// What is first is what counts most.
std::string CutToHeight(const std::string& text) {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) {
    return text;
  }
  std::size_t end = 0;
  for (int line = 1; line < size.ws_row && end < text.size(); ++line) {
    end = text.find('\n', end) + 1;
  }
  return size.ws_row == 0 ? text : text.substr(0, end);
}

}  // namespace

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
  // Long lines are cut off at the right while this is drawn.
  Write(IsTerminal() ? "\033[?7l\033[H\033[2J" + CutToHeight(text) + "\033[?7h" : text);
}

}  // namespace PmCtl
