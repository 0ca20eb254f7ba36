// planner_service plans with every new picture of the camera. It lives through a restart of the
// camera: the numbers then begin again.
#include <cstdint>
#include <cstdio>
#include <fstream>

#include "tools/service/base_service.h"

int main() {
  Services::BaseService service("planner_service");
  service.ReportReady();
  std::uint64_t last = 0;
  std::uint64_t plans = 0;
  while (service.Run(std::chrono::milliseconds(50))) {
    std::uint64_t number = 0;
    if (std::ifstream("/run/platform/picture") >> number && number != last) {
      last = number;
      ++plans;
    }
  }
  std::printf("planner_service: %llu plans\n", static_cast<unsigned long long>(plans));
  return 0;
}
