// proc_launcher, the launcher of the example platform.
#include "tools/service/base_service.h"

int main() {
  Services::BaseService service("proc_launcher");
  service.ReportReady();
  while (service.Run(std::chrono::seconds(1))) {
  }
  return 0;
}
