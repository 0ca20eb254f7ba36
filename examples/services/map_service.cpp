// map_service loads its map before it reports: the boot waits for it.
#include "tools/service/base_service.h"

int main() {
  Services::BaseService service("map_service");
  constexpr std::chrono::milliseconds kLoading{150};
  if (!service.Run(kLoading)) {
    return 0;
  }
  service.ReportReady();
  while (service.Run(std::chrono::seconds(1))) {
  }
  return 0;
}
