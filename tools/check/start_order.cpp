#include "tools/check/start_order.h"

#include "base/circles.h"

namespace ProcMgr::Check {
namespace {

// Who depends on each name, whether it is there or not.
Dependencies Dependants(const std::vector<ApplicationManifest>& applications) {
  Dependencies dependants;
  for (const ApplicationManifest& app : applications) {
    for (const std::string& dependency : app.GetDependList()) {
      dependants[dependency].insert(app.GetAppName());
    }
  }
  return dependants;
}

// Adds everything that depends on a member, be it through others.
void AddDependants(const Dependencies& dependants, std::set<std::string>& members) {
  std::vector<std::string> open(members.begin(), members.end());
  while (!open.empty()) {
    const auto found = dependants.find(open.back());
    open.pop_back();
    if (found == dependants.end()) {
      continue;
    }
    for (const std::string& name : found->second) {
      if (members.insert(name).second) {
        open.push_back(name);
      }
    }
  }
}

Dependencies DependenciesAmong(const std::vector<ApplicationManifest>& applications) {
  Dependencies graph;
  for (const ApplicationManifest& app : applications) {
    graph[app.GetAppName()] = app.GetDependList();
  }
  for (auto& [name, dependencies] : graph) {
    std::erase_if(dependencies,
                  [&graph](const std::string& other) { return !graph.contains(other); });
  }
  return graph;
}

// Walks the graph as the bring-up does.
void FindRounds(const Dependencies& graph, StartOrder& order) {
  DependGraph open;
  for (const auto& [name, dependencies] : graph) {
    if (!order.never.contains(name)) {
      open.AddVertex(name, dependencies);
    }
  }
  while (!open.IsEmpty()) {
    order.rounds.push_back(open.GetNoDependVertices());
    for (const std::string& name : order.rounds.back()) {
      open.Pop(name);
    }
  }
}

}  // namespace

StartOrder FindStartOrder(const std::vector<ApplicationManifest>& applications) {
  StartOrder order;
  const Dependencies graph = DependenciesAmong(applications);
  for (const std::set<std::string>& group : FindCircleGroups(graph)) {
    order.never.insert(group.begin(), group.end());
    for (auto& circle : FindCircles(graph, group, kMaxCircles - order.circles.size())) {
      order.circles.push_back(std::move(circle));
    }
  }
  const Dependencies dependants = Dependants(applications);
  AddDependants(dependants, order.never);
  order.refused = order.never;
  for (const auto& [name, who] : dependants) {
    if (!graph.contains(name)) {
      order.refused.insert(who.begin(), who.end());
    }
  }
  AddDependants(dependants, order.refused);
  FindRounds(graph, order);
  return order;
}

}  // namespace ProcMgr::Check
