// A shortage of memory: one allocation of a program, or each for a while, fails.
//
// It is a library of its own (shortage.cpp) that the dynamic linker loads before all others.
#ifndef TORTURE_SHORTAGE_H
#define TORTURE_SHORTAGE_H

#include <atomic>
#include <cstdint>

namespace PmTorture {

struct Shortage {
  std::atomic<std::int64_t> count;   // Of the allocations so far.
  std::atomic<std::int64_t> first;   // The number of the first one that fails; 0: none does.
  std::atomic<std::int64_t> last;    // The number of the last one.
  std::atomic<std::int64_t> struck;  // How many have failed.
};

// The variable of the environment by which it is shared.
inline constexpr const char* kShortageVariable = "PM_SHORTAGE";

}  // namespace PmTorture

#endif  // TORTURE_SHORTAGE_H
