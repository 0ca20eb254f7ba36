// boot_record notes that the platform has booted and ends: a job, not a service. It has no channel
// and reports nothing.
#include <ctime>
#include <fstream>

int main() {
  std::ofstream record("/run/platform/boots", std::ios::app);
  record << "booted at " << std::time(nullptr) << '\n';
  return record.good() ? 0 : 1;
}
