#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "app/manifest.h"
#include "base/printable.h"
#include "core/log.h"
#include "platform/manifest/circles.h"

namespace ProcMgr {
namespace {

// A graph of nothing but circles must not fill the log.
constexpr std::size_t kMaxLoggedCircles = 100;
constexpr std::size_t kMaxLoggedVertices = 32;

// "a -> b -> c -> a", the middle of a long circle left out.
std::string CircleText(const std::vector<std::string>& circle) {
  static constexpr std::string_view kArrow = " -> ";
  std::string text;
  for (std::size_t i = 0; i < std::min(circle.size(), kMaxLoggedVertices); ++i) {
    text.append(Printable(circle[i])).append(kArrow);
  }
  if (circle.size() > kMaxLoggedVertices) {
    text.append("(").append(std::to_string(circle.size() - kMaxLoggedVertices));
    text.append(" more)").append(kArrow);
  }
  return text + Printable(circle.front());
}

}  // namespace

void DependGraph::AddVertex(const std::string& name, const std::set<std::string>& dependencies) {
  open_[name] = dependencies;
  for (const std::string& dependency : dependencies) {
    dependants_[dependency].insert(name);
  }
  if (dependencies.empty()) {
    free_.insert(name);
  } else {
    free_.erase(name);
  }
}

std::set<std::string> DependGraph::GetNoDependVertices() {
  if (free_.empty()) {
    BreakCircles();
  }
  return free_;
}

void DependGraph::BreakCircles() {
  std::size_t logged = 0;
  const std::vector<std::set<std::string>> groups = Manifest::FindCircleGroups(open_);
  for (const std::set<std::string>& group : groups) {
    const auto circles = Manifest::FindCircles(open_, group, kMaxLoggedCircles - logged);
    for (const std::vector<std::string>& circle : circles) {
      LogError("%s", CircleText(circle).c_str());
    }
    logged += circles.size();
    free_.insert(group.begin(), group.end());
  }
  if (logged == kMaxLoggedCircles) {
    LogError("more circles of dependencies may follow these, among %zu applications", free_.size());
  }
  if (groups.empty()) {
    // No circle: everybody waits for names that were never added. The walk must end all the same.
    for (const auto& [name, dependencies] : open_) {
      free_.insert(name);
    }
  }
  // With their dependencies gone they come up again, and aren't logged again, until they are
  // popped.
  for (const std::string& name : free_) {
    open_[name].clear();
  }
}

void DependGraph::Pop(const std::string& name) {
  open_.erase(name);
  free_.erase(name);
  const auto dependants = dependants_.find(name);
  if (dependants == dependants_.end()) {
    return;
  }
  for (const std::string& dependant : dependants->second) {
    const auto vertex = open_.find(dependant);
    if (vertex != open_.end() && vertex->second.erase(name) > 0 && vertex->second.empty()) {
      free_.insert(dependant);
    }
  }
  dependants_.erase(dependants);
}

}  // namespace ProcMgr
