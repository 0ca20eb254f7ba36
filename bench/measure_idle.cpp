#include <string>

#include "bench/booted_daemon.h"
#include "bench/measures.h"

namespace PmBench {
namespace {

constexpr int kSeconds = 10;
constexpr double kIdleMs = 0.6;

}  // namespace

std::vector<Figure> MeasureIdle() {
  std::vector<Figure> figures;
  const double floorMs = BareLoopUsPerSecond(kSeconds) / 1e3;
  long emptyKib = 0;
  for (const int services : {0, 100, 1000}) {
    const BootedDaemon daemon(services);
    const std::string with = " with " + std::to_string(services) + " services";
    const bool isBounded = services == 1000;
    figures.push_back({"idle CPU in a second" + with, daemon.IdleCpuUsPerSecond(kSeconds) / 1e3,
                       "ms", floorMs,
                       isBounded ? std::optional<double>(floorMs + kIdleMs) : std::nullopt});
    const long residentKib = daemon.ResidentKib();
    if (services == 0) {
      emptyKib = residentKib;
      figures.push_back(
          {"resident memory" + with, static_cast<double>(residentKib), "KiB", {}, 8.0 * 1024});
    } else {
      const double perService = static_cast<double>(residentKib - emptyKib) / services;
      figures.push_back({"memory of one service" + with,
                         perService,
                         "KiB",
                         {},
                         isBounded ? std::optional<double>(6.0) : std::nullopt});
    }
  }
  return figures;
}

}  // namespace PmBench
