// What the tests of host/ share: a folder of their own and the captured log.
#ifndef TESTS_UNIT_HOST_HOST_TEST_H
#define TESTS_UNIT_HOST_HOST_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/unit/host/captured_log.h"

namespace ProcMgr::Testing {

class HostTest : public ::testing::Test {
 protected:
  HostTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pm_host_XXXXXX").string();
    dir_ = std::filesystem::canonical(mkdtemp(pattern.data()));
    (void)TakeLog();  // Lines of the test before.
  }
  ~HostTest() override { std::filesystem::remove_all(dir_); }
  HostTest(const HostTest&) = delete;
  HostTest& operator=(const HostTest&) = delete;

  [[nodiscard]] std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  // Makes a file, and the folders above it.
  [[nodiscard]] std::string Write(const std::string& name, const std::string& content = "") const {
    const std::filesystem::path path = dir_ / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }

  [[nodiscard]] std::string Read(const std::string& name) const {
    std::ifstream file(dir_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::filesystem::path dir_;
};

}  // namespace ProcMgr::Testing

#endif  // TESTS_UNIT_HOST_HOST_TEST_H
