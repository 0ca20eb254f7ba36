#include "bench/listed_program.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "sandbox/process_table.h"
#include "sandbox/system_error.h"

namespace PmBench {
namespace {

const std::string kGood = ".good";

std::string Digest() {
  const std::string program = PmSandbox::ProgramPath("bench-service");
  std::FILE* const stream = popen(("sha256sum " + program).c_str(), "re");
  std::array<char, 65> text{};
  const bool isRead = stream != nullptr && std::fgets(text.data(), text.size(), stream) != nullptr;
  PmSandbox::Demand(stream != nullptr && pclose(stream) == 0 && isRead, "no digest");
  return text.data();
}

}  // namespace

ListedProgram::ListedProgram(const PmSandbox::Sandbox& sandbox)
    : sandbox_(sandbox), path_(sandbox.Outside(kPath)) {
  for (const std::string& path : {std::string(kPath), kPath + kGood}) {
    sandbox.InstallProgram(PmSandbox::ProgramPath("bench-service"), path);
  }
  sandbox.WriteFile(std::string(PmSandbox::Sandbox::kConfigDir) + "bin_hash.cfg",
                    "large=" + Digest() + "\n");
}

void ListedProgram::Grow() const {
  const std::string large = path_ + ".large";
  std::filesystem::copy_file(path_ + kGood, large);
  std::filesystem::resize_file(large, std::uintmax_t{1} << 30);
  std::filesystem::rename(large, path_);
}

void ListedProgram::Shrink() const {
  std::filesystem::rename(path_ + kGood, path_);
  for (const pid_t pid : sandbox_.Processes()) {
    if (PmSandbox::StatusField(pid, "Name") == "sha256sum") {
      (void)kill(pid, SIGKILL);
    }
  }
}

}  // namespace PmBench
