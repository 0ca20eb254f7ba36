// Doing something in a sandbox as somebody else.
#ifndef SANDBOX_AS_USER_H
#define SANDBOX_AS_USER_H

#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "sandbox/sandbox.h"
#include "sandbox/system_error.h"

namespace PmSandbox {

// A user without any rights.
inline constexpr uid_t kStranger = 65534;

// Runs `body` inside, on a thread that is another user's, to its end.
template <typename Body>
void AsUser(const Sandbox& sandbox, uid_t user, const Body& body) {
  const Sandbox::Inside inside(sandbox);
  std::thread([&] {
    // The library's calls would change all threads of the process.
    CheckStep(syscall(SYS_setgroups, 0, nullptr) == 0 &&
                  syscall(SYS_setresgid, user, user, user) == 0 &&
                  syscall(SYS_setresuid, user, user, user) == 0,
              "become another user");
    body();
  }).join();
}

}  // namespace PmSandbox

#endif  // SANDBOX_AS_USER_H
