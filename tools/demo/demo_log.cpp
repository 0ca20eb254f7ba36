#include "tools/demo/demo_log.h"

#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace Demo {
namespace {

constexpr std::chrono::seconds kPatience{30};

char LevelLetter(int level) {
  switch (level) {
    case 3:
      return 'E';
    case 4:
      return 'W';
    case 6:
      return 'I';
    default:
      return 'D';
  }
}

}  // namespace

std::optional<PmSandbox::LogLine> DemoLog::PrintNext() {
  if (!log_.WaitFor("", next_, std::chrono::milliseconds(100)).has_value()) {
    return std::nullopt;
  }
  PmSandbox::LogLine line = log_.At(next_++);
  const std::chrono::duration<double> since = line.at - start_;
  std::printf("%8.3f %c %s\n", since.count(), LevelLetter(line.level), line.text.c_str());
  (void)std::fflush(stdout);
  return line;
}

PmSandbox::LogLine DemoLog::Await(std::vector<std::string> parts, const std::string& what) {
  const ProcMgr::SteadyTime deadline = ProcMgr::SteadyNow() + kPatience;
  while (ProcMgr::SteadyNow() < deadline) {
    if (interrupted_) {
      throw std::runtime_error("interrupted");
    }
    const std::optional<PmSandbox::LogLine> line = PrintNext();
    if (line.has_value() &&
        std::erase_if(parts,
                      [&](const std::string& part) {
                        return line->text.find(part) != std::string::npos;
                      }) > 0 &&
        parts.empty()) {
      return *line;
    }
  }
  throw std::runtime_error(what + " (no line \"" + parts.front() + "\" in the log)");
}

void DemoLog::PrintOn() {
  while (!interrupted_) {
    (void)PrintNext();
  }
}

}  // namespace Demo
