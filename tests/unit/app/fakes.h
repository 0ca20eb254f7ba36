// The platform as the tests of app/ see it: linked in place of the platform's own libraries.
#ifndef TESTS_UNIT_APP_FAKES_H
#define TESTS_UNIT_APP_FAKES_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/plat/plat.h"

namespace ProcMgr::App {

// What the platform answers.
struct FakePlatform {
  std::int32_t deviceResult = 0;
  std::uint32_t deviceCount = 1;
  std::int32_t memResult = 0;
  PlatMemInfo memInfo{};
  std::uint32_t vfId = 0;  // Whose memory it can tell about.
  // The arguments of each platGrpAddProc: "GROUP PID PERMISSION".
  std::vector<std::string> admitted = {};
  // The errno with which IAMInitProc fails; 0: it succeeds.
  int accessError = 0;
  // Whether it wants a child with memory of its own, and leaves what it saw in the environment, as
  // IAM_SAW: "NAME,PATH,HOME=...,OWNER_NAME=...,KEY=...,uid=...".
  bool accessNeedsOwnMemory = false;
};

// Fresh in each test program; a test that changes it puts it back with Reset.
FakePlatform& Platform();
inline void ResetPlatform() {
  Platform() = FakePlatform{};
}

}  // namespace ProcMgr::App

#endif  // TESTS_UNIT_APP_FAKES_H
