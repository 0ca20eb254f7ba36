// The start order as a picture.
#ifndef TOOLS_CHECK_GRAPH_H
#define TOOLS_CHECK_GRAPH_H

#include <string>
#include <vector>

#include "tools/check/report.h"

namespace ProcMgr::Check {

struct GraphNode {
  std::string name;
  bool isReporting = false;
  // Refused, or with an error, or not there.
  bool isRed = false;
  bool isThere = true;
};

// From what is depended on to what depends on it.
struct GraphArrow {
  enum class Kind { kSound, kUnreported, kUnmet };
  std::string from;
  std::string to;
  Kind kind = Kind::kSound;
};

struct Graph {
  // The services as the file has them, each name once, and behind them the names that aren't there.
  std::vector<GraphNode> nodes;
  std::vector<GraphArrow> arrows;
};

[[nodiscard]] Graph GraphOf(const CheckedFile& file);

// A digraph of Graphviz, the services of a round beside each other. What reports has a double
// border; red is red, and in dashes if it isn't there; an arrow from a service that doesn't report
// is orange.
[[nodiscard]] std::string DotGraph(const CheckedFile& file);

// The same as a picture of its own, a column to a round. What never starts has the last column, and
// what isn't there the first. A box shows the findings about it under the pointer.
[[nodiscard]] std::string SvgGraph(const CheckedFile& file);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_GRAPH_H
