// The interface of the access-management library.
#ifndef PLATFORM_IAM_IAM_H
#define PLATFORM_IAM_IAM_H

#include <string>

namespace ProcMgr {

// Who a child is about to become.
struct AppConfig {
  std::string appName;
  std::string execPath;
};

// Introduces the calling process. Called in a child under the application's identity, just before
// its exec: takes no lock that another thread of the manager could have held when the child was
// made. Yields 0, or -1 with an empty name or path.
[[nodiscard]] int IAMInitProc(const AppConfig& config);

// Whether IAMInitProc does more than make system calls: writes to memory outside its stack, or
// reads or changes the environment. Always the same. True: children are forked for it, at a price,
// and it finds the application's environment in its own. False: it runs in the manager's memory,
// and finds the manager's environment.
[[nodiscard]] bool IAMInitProcNeedsOwnMemory();

// Ends the service. Called once, at the end of main.
void IAMRetrieveService();

}  // namespace ProcMgr

#endif  // PLATFORM_IAM_IAM_H
