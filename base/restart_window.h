// How often a base application may be restarted by "on-failure".
#ifndef BASE_RESTART_WINDOW_H
#define BASE_RESTART_WINDOW_H

#include <chrono>
#include <cstddef>

namespace ProcMgr {

inline constexpr std::size_t kMostRestarts = 5;
// A restart that is this old no longer counts. One millisecond more than the window that is
// printed.
inline constexpr std::chrono::nanoseconds kRestartWindow{60'001'000'000};

}  // namespace ProcMgr

#endif  // BASE_RESTART_WINDOW_H
