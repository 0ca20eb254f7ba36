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

// Introduces the calling process. Called in a forked child under the application's identity, just
// before its exec: takes no lock that another thread of the manager could have held at the fork.
// Yields 0, or -1 with an empty name or path.
[[nodiscard]] int IAMInitProc(const AppConfig& config);

// Ends the service. Called once, at the end of main.
void IAMRetrieveService();

}  // namespace ProcMgr

#endif  // PLATFORM_IAM_IAM_H
