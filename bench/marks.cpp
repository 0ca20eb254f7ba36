#include "bench/marks.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "base/small_file.h"
#include "sandbox/wait.h"

namespace PmBench {

long long LastMainNs(const std::vector<Mark>& marks) {
  return std::max_element(
             marks.begin(), marks.end(),
             [](const Mark& left, const Mark& right) { return left.mainNs < right.mainNs; })
      ->mainNs;
}

bool HasLines(const std::string& path, std::size_t count) {
  constexpr std::size_t kLimit = std::size_t{64} << 20;
  std::string text;
  return ProcMgr::ReadSmallFile(path, kLimit, text) == 0 &&
         static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) >= count;
}

Marks::Marks(const PmSandbox::Sandbox& sandbox, const std::string& name)
    : sandbox_(sandbox), path_(std::string(PmSandbox::Sandbox::kDir) + "/marks." + name) {
  sandbox.WriteFile(path_, "", 0666);
}

std::vector<Mark> Marks::Read() const {
  std::vector<Mark> marks;
  std::istringstream text(sandbox_.ReadFile(path_));
  for (Mark mark; text >> mark.pid >> mark.mainNs >> mark.cpuNs;) {
    marks.push_back(mark);
  }
  return marks;
}

std::vector<Mark> Marks::Await(std::size_t count) const {
  const std::string path = sandbox_.Outside(path_);
  const bool isWhole = PmSandbox::Eventually([&] { return HasLines(path, count); });
  std::vector<Mark> marks = Read();
  if (!isWhole) {
    throw std::runtime_error(std::to_string(marks.size()) + " of " + std::to_string(count) +
                             " services came to their main");
  }
  return marks;
}

}  // namespace PmBench
