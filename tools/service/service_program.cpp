#include "tools/service/service_program.h"

namespace Services {
namespace {

// A relative one would come to be wherever the program happens to stand.
std::string CheckAbsolute(const std::string& path) {
  return path.starts_with('/') ? std::string() : "not an absolute path: " + path;
}

}  // namespace

void AddPathOption(CLI::App& app, const char* name, const char* text, std::string& path) {
  app.add_option(name, path, text)
      ->capture_default_str()
      ->check(CLI::Validator(&CheckAbsolute, "ABSOLUTE"));
}

void AddWaitOption(CLI::App& app, unsigned& seconds) {
  app.add_option("--wait", seconds, "How many seconds to wait for the manager's channel")
      ->capture_default_str();
}

}  // namespace Services
