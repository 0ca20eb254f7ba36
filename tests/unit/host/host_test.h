// What the tests of host/ share: a folder of their own and the captured log.
#ifndef TESTS_UNIT_HOST_HOST_TEST_H
#define TESTS_UNIT_HOST_HOST_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "base/small_file.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/host/captured_log.h"

namespace ProcMgr::Testing {

class HostTest : public ::testing::Test, protected PmTest::TempFolder {
 protected:
  HostTest() { (void)TakeLog(); }  // Lines of the test before.

  // What stands in the file; empty if there is none.
  [[nodiscard]] std::string Read(const std::string& name) const {
    std::string text;
    (void)ReadSmallFile(Path(name), kConfigFileLimit, text);
    return text;
  }
};

}  // namespace ProcMgr::Testing

#endif  // TESTS_UNIT_HOST_HOST_TEST_H
