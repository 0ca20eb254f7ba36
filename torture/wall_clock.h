// A wall clock that a run steps as it likes, for the programs that are started with it; the
// machine's own goes on untouched.
//
// It is a library of its own (wall_clock.cpp) that the dynamic linker loads before all others.
#ifndef TORTURE_WALL_CLOCK_H
#define TORTURE_WALL_CLOCK_H

#include <atomic>
#include <cstdint>

namespace PmTorture {

// What the run and the programs share.
struct WallClock {
  std::atomic<std::int64_t> aheadS;   // Seconds by which the clock is ahead of the machine's.
  std::atomic<std::uint64_t> looks;   // How often somebody has read it,
  std::atomic<std::uint64_t> trusts;  // and begun to wait for a time that it is to show.
};

// The variable of the environment by which. Without it the library changes nothing.
inline constexpr const char* kWallClockVariable = "PM_WALL_CLOCK";

}  // namespace PmTorture

#endif  // TORTURE_WALL_CLOCK_H
