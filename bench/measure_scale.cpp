#include <algorithm>
#include <string>
#include <vector>

#include "bench/booted_daemon.h"
#include "bench/floor.h"
#include "bench/measures.h"

namespace PmBench {
namespace {

// The first boot of a row finds cold caches.
constexpr std::size_t kBoots = 3;

struct Boot {
  double ms = 0;
  double bareMs = 0;
  double residentKib = 0;
};

Boot BootOnce(int services) {
  const BootedDaemon daemon(services);
  const long long lastNs = LastMainNs(daemon.Services().Await(static_cast<std::size_t>(services)));
  // From a process without memory of its own: the manager's grows with the services, and would make
  // each bare fork dearer than its own starts are.
  const StartsAtOnce bare = MeasureFloorAtOnce(daemon.Host(), {}, services, services);
  return {MsBetween(daemon.StartNs(), lastNs), bare.startUs / 1e3,
          static_cast<double>(daemon.ResidentKib())};
}

void MeasureWith(int services, std::vector<Figure>& figures) {
  std::vector<Boot> boots(kBoots);
  std::generate(boots.begin(), boots.end(), [services] { return BootOnce(services); });
  const std::string with = " with " + std::to_string(services) + " services";
  Figure boot{
      "scale: boot" + with, MedianOf(boots, &Boot::ms), "ms", MedianOf(boots, &Boot::bareMs), {}};
  boot.services = services;
  boot.curve = "boot";
  figures.push_back(boot);
  Figure memory{
      "scale: resident memory" + with, MedianOf(boots, &Boot::residentKib), "KiB", {}, {}};
  memory.services = services;
  memory.curve = "memory";
  figures.push_back(memory);
}

}  // namespace

std::vector<Figure> MeasureScale() {
  std::vector<Figure> figures;
  for (const int services : {10, 30, 100, 300, 1000, 3000, 10'000}) {
    MeasureWith(services, figures);
  }
  return figures;
}

}  // namespace PmBench
