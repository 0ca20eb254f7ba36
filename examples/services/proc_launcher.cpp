// proc_launcher, the launcher of the example platform.
#include "examples/services/service.h"

int main() {
  Example::Service service("proc_launcher");
  service.ReportReady();
  while (service.Run(std::chrono::seconds(1))) {
  }
  return 0;
}
