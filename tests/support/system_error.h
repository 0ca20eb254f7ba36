// The one way in which test support gives up: an exception that names the step and the reason.
#ifndef TESTS_SUPPORT_SYSTEM_ERROR_H
#define TESTS_SUPPORT_SYSTEM_ERROR_H

#include <cerrno>
#include <string>
#include <system_error>

namespace PmTest {

// Throws with the text of errno behind `what`.
[[noreturn]] inline void FailWithErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Throws unless `ok`; errno must still be that of the step.
inline void CheckStep(bool ok, const std::string& what) {
  if (!ok) {
    FailWithErrno(what);
  }
}

}  // namespace PmTest

#endif  // TESTS_SUPPORT_SYSTEM_ERROR_H
