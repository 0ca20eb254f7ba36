#include "tools/check/graph.h"

#include <map>
#include <set>

#include "base/printable.h"

namespace ProcMgr::Check {
namespace {

// Graphviz takes a backslash and a quote for its own.
std::string DotText(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : Printable(text, text.size())) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + '"';
}

std::string DotNode(const GraphNode& node) {
  std::string look;
  const auto add = [&look](const char* what) {
    look.append(look.empty() ? " [" : ", ").append(what);
  };
  if (node.isReporting) {
    add("peripheries=2");
  }
  if (!node.isThere) {
    add("style=dashed");
  }
  if (node.isRed) {
    add("color=red");
  }
  return "  " + DotText(node.name) + look + (look.empty() ? ";\n" : "];\n");
}

const char* DotLook(GraphArrow::Kind kind) {
  switch (kind) {
    case GraphArrow::Kind::kSound:
      break;
    case GraphArrow::Kind::kUnreported:
      return " [color=orange]";
    case GraphArrow::Kind::kUnmet:
      return " [color=red]";
  }
  return "";
}

std::set<std::string> RedServices(const CheckedFile& file) {
  std::set<std::string> red = file.order.refused;
  for (const Finding& finding : file.findings) {
    if (finding.severity == Severity::kError) {
      red.insert(finding.service);
    }
  }
  return red;
}

void AddArrows(const Manifest::CheckedLoad& load, const std::map<std::string, bool>& isReporting,
               Graph& graph) {
  std::set<std::string> missing;
  for (const ApplicationManifest& app : load.applications) {
    for (const std::string& dependency : app.GetDependList()) {
      const auto found = isReporting.find(dependency);
      GraphArrow arrow{dependency, app.GetAppName(), GraphArrow::Kind::kSound};
      if (found == isReporting.end()) {
        missing.insert(dependency);
        arrow.kind = GraphArrow::Kind::kUnmet;
      } else if (!found->second) {
        arrow.kind = GraphArrow::Kind::kUnreported;
      }
      graph.arrows.push_back(arrow);
    }
  }
  for (const std::string& name : missing) {
    graph.nodes.push_back({name, false, true, false});
  }
}

}  // namespace

Graph GraphOf(const CheckedFile& file) {
  const Manifest::CheckedLoad& load = file.files.first.load;
  const std::set<std::string> red = RedServices(file);
  std::map<std::string, bool> isReporting;
  Graph graph;
  for (const ApplicationManifest& app : load.applications) {
    const std::string& name = app.GetAppName();
    if (isReporting.emplace(name, app.GetIsReporting()).second) {
      graph.nodes.push_back({name, app.GetIsReporting(), red.contains(name), true});
    }
  }
  AddArrows(load, isReporting, graph);
  return graph;
}

std::string DotGraph(const CheckedFile& file) {
  const Graph graph = GraphOf(file);
  std::string out =
      "digraph " + DotText(file.files.first.path) + " {\n  rankdir=LR;\n  node [shape=box];\n";
  for (const GraphNode& node : graph.nodes) {
    out += DotNode(node);
  }
  for (const std::set<std::string>& round : file.order.rounds) {
    out += "  { rank=same;";
    for (const std::string& name : round) {
      out += ' ' + DotText(name) + ';';
    }
    out += " }\n";
  }
  for (const GraphArrow& arrow : graph.arrows) {
    out += "  " + DotText(arrow.from) + " -> " + DotText(arrow.to) + DotLook(arrow.kind) + ";\n";
  }
  return out + "}\n";
}

}  // namespace ProcMgr::Check
