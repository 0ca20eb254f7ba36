// Circles of dependencies.
#ifndef BASE_CIRCLES_H
#define BASE_CIRCLES_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace ProcMgr {

using Dependencies = std::map<std::string, std::set<std::string>>;

// The names of the vertices that lie on circles, one group for all circles that touch each other.
// Names that aren't keys of `graph` are passed over. Linear in the size of the graph, no recursion.
[[nodiscard]] std::vector<std::set<std::string>> FindCircleGroups(const Dependencies& graph);

// Circles of `group`, a result of FindCircleGroups, so that each of its vertices is on at least one
// of them; at most `limit`. Each is the list of its vertices, the next being what the one before it
// depends on.
[[nodiscard]] std::vector<std::vector<std::string>> FindCircles(const Dependencies& graph,
                                                                const std::set<std::string>& group,
                                                                std::size_t limit);

}  // namespace ProcMgr

#endif  // BASE_CIRCLES_H
