// How a run says that a promise was broken.
#ifndef TORTURE_REQUIRE_H
#define TORTURE_REQUIRE_H

#include <stdexcept>
#include <string>

namespace PmTorture {

// The message is what was seen and what was promised.
class Broken : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws Broken with `what` unless the promise holds.
inline void Require(bool holds, const std::string& what) {
  if (!holds) {
    throw Broken(what);
  }
}

}  // namespace PmTorture

#endif  // TORTURE_REQUIRE_H
