#include "sandbox/service_file.h"

#include <algorithm>

namespace PmSandbox {
namespace {

bool HasKey(const App& app, const char* key) {
  return std::any_of(app.keys.begin(), app.keys.end(),
                     [key](const auto& pair) { return pair.first == key; });
}

// A scalar that stays the text it is, whatever it looks like.
std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c;
    if (c == '\'') {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

std::string ServiceFile(const std::vector<App>& apps) {
  std::string text = "applications:\n";
  for (const App& app : apps) {
    text += "  - appName: " + Quoted(app.name) + "\n    binPath: " + Quoted(app.binPath) + "\n";
    for (const char* identity : {"uid", "gid"}) {
      if (!HasKey(app, identity)) {
        text.append("    ").append(identity).append(": 0\n");
      }
    }
    if (!app.arguments.empty()) {
      text += "    arguments:\n";
      for (const std::string& argument : app.arguments) {
        text += "      - " + Quoted(argument) + "\n";
      }
    }
    for (const auto& [key, value] : app.keys) {
      text.append("    ").append(key).append(": ").append(value).append("\n");
    }
  }
  return text;
}

}  // namespace PmSandbox
