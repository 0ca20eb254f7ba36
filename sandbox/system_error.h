// The one way in which test support gives up: an exception that names the step and the reason.
#ifndef SANDBOX_SYSTEM_ERROR_H
#define SANDBOX_SYSTEM_ERROR_H

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace PmSandbox {

// Throws with the text of errno behind `what` unless `ok`; errno must still be that of the step.
inline void CheckStep(bool ok, const std::string& what) {
  if (!ok) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

// The same for what has no errno.
inline void Demand(bool ok, const std::string& what) {
  if (!ok) {
    throw std::runtime_error(what);
  }
}

}  // namespace PmSandbox

#endif  // SANDBOX_SYSTEM_ERROR_H
