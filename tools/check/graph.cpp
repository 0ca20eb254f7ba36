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

std::set<std::string> RedServices(const CheckedFile& file) {
  std::set<std::string> red = file.order.refused;
  for (const Finding& finding : file.findings) {
    if (finding.severity == Severity::kError) {
      red.insert(finding.service);
    }
  }
  return red;
}

void AddNodes(const CheckedFile& file, std::string& out) {
  const std::set<std::string> red = RedServices(file);
  for (const ApplicationManifest& app : file.files.first.load.applications) {
    const std::string& name = app.GetAppName();
    const bool isRed = red.contains(name);
    out += "  " + DotText(name);
    if (app.GetIsReporting()) {
      out += isRed ? " [peripheries=2, color=red]" : " [peripheries=2]";
    } else if (isRed) {
      out += " [color=red]";
    }
    out += ";\n";
  }
}

void AddRounds(const StartOrder& order, std::string& out) {
  for (const std::set<std::string>& round : order.rounds) {
    out += "  { rank=same;";
    for (const std::string& name : round) {
      out += ' ' + DotText(name) + ';';
    }
    out += " }\n";
  }
}

void AddArrows(const Manifest::CheckedLoad& load, std::string& out) {
  std::map<std::string, bool> isReporting;
  for (const ApplicationManifest& app : load.applications) {
    isReporting.emplace(app.GetAppName(), app.GetIsReporting());
  }
  std::set<std::string> missing;
  for (const ApplicationManifest& app : load.applications) {
    for (const std::string& dependency : app.GetDependList()) {
      const auto found = isReporting.find(dependency);
      out += "  " + DotText(dependency) + " -> " + DotText(app.GetAppName());
      if (found == isReporting.end()) {
        missing.insert(dependency);
        out += " [color=red]";
      } else if (!found->second) {
        out += " [color=orange]";
      }
      out += ";\n";
    }
  }
  for (const std::string& name : missing) {
    out += "  " + DotText(name) + " [style=dashed, color=red];\n";
  }
}

}  // namespace

std::string DotGraph(const CheckedFile& file) {
  std::string out =
      "digraph " + DotText(file.files.first.path) + " {\n  rankdir=LR;\n  node [shape=box];\n";
  AddNodes(file, out);
  AddRounds(file.order, out);
  AddArrows(file.files.first.load, out);
  return out + "}\n";
}

}  // namespace ProcMgr::Check
