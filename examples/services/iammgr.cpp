// iammgr, the access manager of the example platform: the first service to come up, on which every
// other one depends.
#include "examples/services/service.h"

int main() {
  Example::Service service("iammgr");
  service.ReportReady();
  while (service.Run(std::chrono::seconds(1))) {
  }
  return 0;
}
