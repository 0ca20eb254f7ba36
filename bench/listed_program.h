// A program whose digest is listed.
#ifndef BENCH_LISTED_PROGRAM_H
#define BENCH_LISTED_PROGRAM_H

#include <string>

#include "sandbox/sandbox.h"

namespace PmBench {

// A bench-service, and its replacement of a gigabyte, whose digest isn't the listed one. The
// operations throw if the machine doesn't play along.
class ListedProgram {
 public:
  static constexpr const char* kPath = "/opt/bench/large";  // Inside.

  explicit ListedProgram(const PmSandbox::Sandbox& sandbox);

  void Grow() const;
  // The digests that are under way are broken off, and tried again.
  void Shrink() const;

 private:
  const PmSandbox::Sandbox& sandbox_;
  const std::string path_;
};

}  // namespace PmBench

#endif  // BENCH_LISTED_PROGRAM_H
