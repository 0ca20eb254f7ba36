// The example platform, installed in a sandbox.
#ifndef TOOLS_DEMO_DEMO_PLATFORM_H
#define TOOLS_DEMO_DEMO_PLATFORM_H

#include <string>
#include <vector>

#include "sandbox/sandbox.h"

namespace Demo {

// The file that the manager is started with, inside; and the one that has the service in Python,
// too.
inline constexpr const char* kPlatformFile = "/etc/zur/platform/platform.yaml";
inline constexpr const char* kPythonPlatformFile = "/etc/zur/platform/with_python.yaml";

// What the operator service may start, inside.
inline constexpr const char* kOperatorEntries = "/etc/zur/platform/entries/operator.yaml";

// The operator's program, inside.
inline constexpr const char* kPmctl = "/opt/platform/bin/pmctl";

// What all applications of the operator run, inside.
inline constexpr const char* kSampleApp = "/opt/platform/bin/sample_app";

struct PlatformService {
  std::string name;
  std::string user;
  bool staysUp = true;  // A job ends by itself.
  bool isReporting = true;
};
// Everything that the file kPlatformFile starts, in the order in which it is to come up; or, if
// `withPython`, the other file.
std::vector<PlatformService> PlatformServices(bool withPython);

// Gives the sandbox the platform's users, groups, programs and files. Throws with what is missing.
void InstallPlatform(const PmSandbox::Sandbox& sandbox);

// Whether the service in Python can run in the sandbox, for which the platform is installed: the
// machine may have no Python, or not all of it.
[[nodiscard]] bool HasPython(const PmSandbox::Sandbox& sandbox);

}  // namespace Demo

#endif  // TOOLS_DEMO_DEMO_PLATFORM_H
