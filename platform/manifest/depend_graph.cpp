#include <algorithm>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "app/manifest.h"
#include "base/circles.h"
#include "base/printable.h"
#include "core/log.h"

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

struct DependGraph::State {
  // Logs the circles and takes their vertices' dependencies away.
  void BreakCircles();

  // Name to its open dependencies.
  Dependencies open;
  // Name to those that depend on it, so that a pop needn't search.
  Dependencies dependants;
  // The names in `open` that have no open dependency.
  std::set<std::string> free;
};

DependGraph::DependGraph() : state_(std::make_unique<State>()) {}

DependGraph::~DependGraph() = default;

DependGraph::DependGraph(DependGraph&& other) noexcept = default;

bool DependGraph::IsEmpty() const {
  return state_->open.empty();
}

void DependGraph::AddVertex(const std::string& name, const std::set<std::string>& dependencies) {
  state_->open[name] = dependencies;
  for (const std::string& dependency : dependencies) {
    state_->dependants[dependency].insert(name);
  }
  if (dependencies.empty()) {
    state_->free.insert(name);
  } else {
    state_->free.erase(name);
  }
}

std::set<std::string> DependGraph::GetNoDependVertices() {
  if (state_->free.empty()) {
    state_->BreakCircles();
  }
  return state_->free;
}

void DependGraph::State::BreakCircles() {
  std::size_t logged = 0;
  const std::vector<std::set<std::string>> groups = FindCircleGroups(open);
  for (const std::set<std::string>& group : groups) {
    const auto circles = FindCircles(open, group, kMaxLoggedCircles - logged);
    for (const std::vector<std::string>& circle : circles) {
      LogError("%s", CircleText(circle).c_str());
    }
    logged += circles.size();
    free.insert(group.begin(), group.end());
  }
  if (logged == kMaxLoggedCircles) {
    LogError("more circles of dependencies may follow these, among %zu applications", free.size());
  }
  if (groups.empty()) {
    // No circle: everybody waits for names that were never added. The walk must end all the same.
    for (const auto& [name, dependencies] : open) {
      free.insert(name);
    }
  }
  // With their dependencies gone they come up again, and aren't logged again, until they are
  // popped.
  for (const std::string& name : free) {
    open[name].clear();
  }
}

void DependGraph::Pop(const std::string& name) {
  state_->open.erase(name);
  state_->free.erase(name);
  const auto dependants = state_->dependants.find(name);
  if (dependants == state_->dependants.end()) {
    return;
  }
  for (const std::string& dependant : dependants->second) {
    const auto vertex = state_->open.find(dependant);
    if (vertex != state_->open.end() && vertex->second.erase(name) > 0 && vertex->second.empty()) {
      state_->free.insert(dependant);
    }
  }
  state_->dependants.erase(dependants);
}

}  // namespace ProcMgr
