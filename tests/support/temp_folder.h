// A folder of files for one test.
#ifndef TESTS_SUPPORT_TEMP_FOLDER_H
#define TESTS_SUPPORT_TEMP_FOLDER_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

namespace PmTest {

// An empty folder of its own, which goes with everything in it. Its path is a resolved one.
class TempFolder {
 public:
  TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "pm-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    path_ = std::filesystem::canonical(name);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  [[nodiscard]] std::string Path(std::string_view name) const { return (path_ / name).string(); }

  // Writes the file `name`, and the folders in which it stands; yields its path.
  std::string Write(std::string_view name, std::string_view text) const {
    const std::filesystem::path file = path_ / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << text;
    stream.close();
    if (!stream) {
      throw std::system_error(errno, std::generic_category(), file.string());
    }
    return file.string();
  }

 private:
  std::filesystem::path path_;
};

}  // namespace PmTest

#endif  // TESTS_SUPPORT_TEMP_FOLDER_H
