// The example platform, installed in a sandbox.
#ifndef TOOLS_DEMO_DEMO_PLATFORM_H
#define TOOLS_DEMO_DEMO_PLATFORM_H

#include <string>
#include <vector>

#include "sandbox/sandbox.h"

namespace Demo {

// The file that the manager is started with, inside.
inline constexpr const char* kPlatformFile = "/etc/zur/platform/platform.yaml";

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
// Everything that the platform starts, in the order in which it is to come up.
const std::vector<PlatformService>& PlatformServices();

// Gives the sandbox the platform's users, groups, programs and files. Throws with what is missing.
void InstallPlatform(const PmSandbox::Sandbox& sandbox);

}  // namespace Demo

#endif  // TOOLS_DEMO_DEMO_PLATFORM_H
