// camera_service takes a picture ten times a second and leaves its number where others find it.
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "tools/service/base_service.h"

namespace {

constexpr const char* kPicture = "/run/platform/picture";

void Publish(std::uint64_t number) {
  // Written beside its place and moved there, so that no reader sees half a number.
  const std::string draft = std::string(kPicture) + ".new";
  std::ofstream(draft) << number << '\n';
  std::filesystem::rename(draft, kPicture);
}

}  // namespace

int main() {
  Services::BaseService service("camera_service");
  std::uint64_t number = 0;
  Publish(number);
  service.ReportReady();
  while (service.Run(std::chrono::milliseconds(100))) {
    Publish(++number);
  }
  return 0;
}
