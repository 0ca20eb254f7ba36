// In which order the services of a file come up.
#ifndef TOOLS_CHECK_START_ORDER_H
#define TOOLS_CHECK_START_ORDER_H

#include <set>
#include <string>
#include <vector>

#include "app/manifest.h"

namespace ProcMgr::Check {

// How many circles are told. A graph of nothing but circles has more than anybody reads.
inline constexpr std::size_t kMaxCircles = 100;

struct StartOrder {
  // The services of each round, by name, every start taken for a success. Without those of `never`.
  std::vector<std::set<std::string>> rounds;
  // The members of circles, and what hangs on them.
  std::set<std::string> never;
  // Services that are refused at every boot: those of `never`, those with unmet dependencies, and
  // what depends on them.
  std::set<std::string> refused;
  // At most kMaxCircles. Each is the list of its members, the next being what the one before it
  // depends on.
  std::vector<std::vector<std::string>> circles;
};

[[nodiscard]] StartOrder FindStartOrder(const std::vector<ApplicationManifest>& applications);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_START_ORDER_H
