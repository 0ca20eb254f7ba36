// Writing service files.
#ifndef SANDBOX_SERVICE_FILE_H
#define SANDBOX_SERVICE_FILE_H

#include <string>
#include <utility>
#include <vector>

namespace PmSandbox {

using Keys = std::vector<std::pair<std::string, std::string>>;

// One application of a service file. Runs as root unless told otherwise.
struct App {
  std::string name;
  std::string binPath;
  std::vector<std::string> arguments;
  // Any further key with its value as YAML text, for example {"restart", "on-failure"} or
  // {"dependList", "[a, b]"}; "uid" and "gid" here replace root.
  Keys keys;
};

// The text of a service file with these applications, in this order.
std::string ServiceFile(const std::vector<App>& apps);

}  // namespace PmSandbox

#endif  // SANDBOX_SERVICE_FILE_H
