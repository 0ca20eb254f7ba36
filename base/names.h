// The names that mean something to this system.
#ifndef BASE_NAMES_H
#define BASE_NAMES_H

namespace ProcMgr {

// The manager's own name: in its log lines, its reports and its environment.
inline constexpr const char* kManagerName = "PROCMGR";

// The service that hears of every process there is.
inline constexpr const char* kAccessService = "iammgr";

// The service of the data plane, which runs processes of its own and tells the manager of them.
inline constexpr const char* kDataService = "ventrix";

}  // namespace ProcMgr

#endif  // BASE_NAMES_H
