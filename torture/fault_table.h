// Which system calls may fail on a bad day, and how.
#ifndef TORTURE_FAULT_TABLE_H
#define TORTURE_FAULT_TABLE_H

#include <string_view>
#include <vector>

namespace PmTorture {

struct FaultyCall {
  int number = 0;  // SYS_...
  const char* name = nullptr;
  std::vector<int> errors;  // That its manual page names and that a machine may bring about.
};

const std::vector<FaultyCall>& FaultyCalls();

// Those that aren't failed: they can't fail as they are used here, or do what they are to do
// whatever they yield.
const std::vector<int>& SureCalls();

}  // namespace PmTorture

#endif  // TORTURE_FAULT_TABLE_H
