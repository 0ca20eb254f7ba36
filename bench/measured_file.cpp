#include "bench/measured_file.h"

#include <sys/utsname.h>

#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

namespace PmBench {
namespace {

std::string Date() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char text[sizeof("2026-01-01")];
  (void)std::strftime(text, sizeof(text), "%Y-%m-%d", gmtime_r(&now, &utc));
  return text;
}

// The kernel of a 64-bit Arm gives its processors no name.
std::string Processor(const utsname& kernel) {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("model name") && line.find(": ") != std::string::npos) {
      return line.substr(line.find(": ") + 2);
    }
  }
  return kernel.machine;
}

// "6.1" of "6.1.0-18-amd64": what follows is its maker's business.
std::string Release(const utsname& kernel) {
  const std::string whole = kernel.release;
  return whole.substr(0, whole.find_first_not_of("0123456789", whole.find('.') + 1));
}

nlohmann::json Machine() {
  utsname kernel{};
  (void)uname(&kernel);
  return {{"kernel", std::string(kernel.sysname) + " " + Release(kernel) + " " + kernel.machine},
          {"processor", Processor(kernel)},
          {"cores", std::thread::hardware_concurrency()}};
}

}  // namespace

void WriteMeasured(const std::string& path, const std::string& list,
                   const nlohmann::json& entries) {
  std::ofstream file(path);
  file << R"({"date": ")" << Date() << "\",\n \"machine\": " << Machine() << ",\n \"" << list
       << "\": [";
  const char* separator = "\n  ";
  for (const nlohmann::json& entry : entries) {
    file << separator << entry;
    separator = ",\n  ";
  }
  file << "\n ]}\n";
  if (!file.flush()) {
    throw std::runtime_error("can't write " + path);
  }
}

}  // namespace PmBench
