// The start order as a picture that every browser shows.
#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/printable.h"
#include "base/xml_text.h"
#include "tools/check/graph.h"

namespace ProcMgr::Check {
namespace {

// Pixels. A letter of the font that is asked for is narrower.
constexpr std::size_t kLetter = 8;
constexpr std::size_t kMargin = 20;
constexpr std::size_t kHeading = 40;
constexpr std::size_t kBoxHeight = 24;
constexpr std::size_t kRowHeight = 40;
constexpr std::size_t kColumnGap = 90;

constexpr const char* kStyle =
    "<style>\n"
    "text { font: 12px monospace; text-anchor: middle; }\n"
    "rect { fill: white; stroke: black; }\n"
    "path { fill: none; stroke: gray; marker-end: url(#tip); }\n"
    ".red rect { stroke: red; fill: mistyrose; }\n"
    ".lost rect { stroke-dasharray: 4; }\n"
    ".unmet { stroke: red; }\n"
    ".unreported { stroke: darkorange; }\n"
    "</style>\n"
    "<defs><marker id=\"tip\" viewBox=\"0 0 8 8\" refX=\"8\" refY=\"4\" markerWidth=\"8\" "
    "markerHeight=\"8\" orient=\"auto\"><path d=\"M0,0 L8,4 L0,8 z\" "
    "style=\"fill: gray; stroke: none; marker-end: none\"/></marker></defs>\n";

struct Box {
  std::size_t x = 0;
  std::size_t y = 0;
  std::size_t width = 0;
};

struct Column {
  std::string heading;
  std::vector<std::string> names;
};

// Names and texts come from files.
std::string Shown(std::string_view text) {
  return XmlText(Printable(text, text.size()));
}

// name="value" with a blank in front of it.
std::string Number(const char* name, std::size_t value) {
  return std::string(" ") + name + "=\"" + std::to_string(value) + '"';
}

std::vector<Column> ColumnsOf(const CheckedFile& file, const Graph& graph) {
  std::vector<Column> columns;
  Column lost{"isn't there", {}};
  for (const GraphNode& node : graph.nodes) {
    if (!node.isThere) {
      lost.names.push_back(node.name);
    }
  }
  columns.push_back(lost);
  for (const std::set<std::string>& round : file.order.rounds) {
    columns.push_back(
        {"round " + std::to_string(columns.size()), std::vector(round.begin(), round.end())});
  }
  columns.push_back({"never", std::vector(file.order.never.begin(), file.order.never.end())});
  columns.erase(std::remove_if(columns.begin(), columns.end(),
                               [](const Column& column) { return column.names.empty(); }),
                columns.end());
  return columns;
}

std::size_t WidthOf(const std::string& text) {
  return (Printable(text, text.size()).size() + 2) * kLetter;
}

// The mean height of what each name depends on, of that what is placed already: services in this
// order have fewer arrows that cross.
std::map<std::string, std::size_t> MeanHeights(const std::vector<std::string>& names,
                                               const Graph& graph,
                                               const std::map<std::string, Box>& boxes) {
  std::map<std::string, std::pair<std::size_t, std::size_t>> sums;
  for (const GraphArrow& arrow : graph.arrows) {
    if (const auto from = boxes.find(arrow.from); from != boxes.end()) {
      sums[arrow.to].first += from->second.y;
      ++sums[arrow.to].second;
    }
  }
  std::map<std::string, std::size_t> means;
  for (const std::string& name : names) {
    const auto sum = sums.find(name);
    means[name] = sum == sums.end() ? 0 : sum->second.first / sum->second.second;
  }
  return means;
}

// Places the boxes, yields the width of everything and writes the headings.
std::size_t Place(std::vector<Column> columns, const Graph& graph,
                  std::map<std::string, Box>& boxes, std::string& headings) {
  std::size_t x = kMargin;
  for (Column& column : columns) {
    const std::map<std::string, std::size_t> means = MeanHeights(column.names, graph, boxes);
    std::stable_sort(column.names.begin(), column.names.end(),
                     [&means](const auto& a, const auto& b) { return means.at(a) < means.at(b); });
    std::size_t width = WidthOf(column.heading);
    for (const std::string& name : column.names) {
      width = std::max(width, WidthOf(name));
    }
    std::size_t y = kMargin + kHeading;
    for (const std::string& name : column.names) {
      boxes[name] = {x, y, width};
      y += kRowHeight;
    }
    headings += "<text" + Number("x", x + width / 2) + Number("y", kMargin + kBoxHeight / 2) + ">" +
                Shown(column.heading) + "</text>\n";
    x += width + kColumnGap;
  }
  return x;
}

std::string SvgPoint(std::size_t x, std::size_t y) {
  return ' ' + std::to_string(x) + ',' + std::to_string(y);
}

// An S from one point to another, which are beside each other or on one edge.
std::string Bend(std::size_t fromX, std::size_t fromY, std::size_t toX, std::size_t toY) {
  const std::size_t half = kColumnGap / 2;
  return " C" + SvgPoint(fromX + half, fromY) +
         SvgPoint(toX > fromX ? toX - half : toX + half, toY) + SvgPoint(toX, toY);
}

// From the right edge of its start to the left edge of its end; to the right edge within a column.
// One that passes columns by does so between two rows.
std::string SvgArrow(const GraphArrow& arrow, const Box& from, const Box& to) {
  const std::size_t fromX = from.x + from.width;
  const std::size_t fromY = from.y + kBoxHeight / 2;
  const std::size_t toY = to.y + kBoxHeight / 2;
  const std::size_t toX = to.x > from.x ? to.x : to.x + to.width;
  std::string line = "M" + SvgPoint(fromX, fromY);
  if (toX > fromX + kColumnGap) {
    const std::size_t between = toY + kRowHeight / 2;
    line += Bend(fromX, fromY, fromX + kColumnGap, between) + " H " +
            std::to_string(toX - kColumnGap) + Bend(toX - kColumnGap, between, toX, toY);
  } else {
    line += Bend(fromX, fromY, toX, toY);
  }
  const char* const look = arrow.kind == GraphArrow::Kind::kUnmet        ? " class=\"unmet\""
                           : arrow.kind == GraphArrow::Kind::kUnreported ? " class=\"unreported\""
                                                                         : "";
  return std::string("<path") + look + " d=\"" + line + "\"/>\n";
}

std::string SvgNode(const GraphNode& node, const Box& box, const std::string& told) {
  const std::string size = Number("width", box.width) + Number("height", kBoxHeight);
  std::string out = "<g";
  if (node.isRed) {
    out += node.isThere ? " class=\"red\"" : " class=\"red lost\"";
  }
  out += "><title>" + Shown(node.name) + told + "</title>";
  out += "<rect" + Number("x", box.x) + Number("y", box.y) + size + "/>";
  if (node.isReporting) {
    out += "<rect" + Number("x", box.x + 3) + Number("y", box.y + 3) +
           Number("width", box.width - 6) + Number("height", kBoxHeight - 6) + "/>";
  }
  return out + "<text" + Number("x", box.x + box.width / 2) +
         Number("y", box.y + kBoxHeight / 2 + 4) + ">" + Shown(node.name) + "</text></g>\n";
}

}  // namespace

std::string SvgGraph(const CheckedFile& file) {
  const Graph graph = GraphOf(file);
  const std::vector<Column> columns = ColumnsOf(file, graph);
  std::map<std::string, Box> boxes;
  std::string body;
  const std::size_t width = Place(columns, graph, boxes, body);
  std::size_t rows = 1;
  for (const Column& column : columns) {
    rows = std::max(rows, column.names.size());
  }
  // Boxes hide what runs under them.
  for (const GraphArrow& arrow : graph.arrows) {
    if (boxes.contains(arrow.from) && boxes.contains(arrow.to)) {
      body += SvgArrow(arrow, boxes.at(arrow.from), boxes.at(arrow.to));
    }
  }
  std::map<std::string, std::string> told;
  for (const Finding& finding : file.findings) {
    told[finding.service] += '\n' + Shown(finding.text);
  }
  for (const GraphNode& node : graph.nodes) {
    if (const auto box = boxes.find(node.name); box != boxes.end()) {
      body += SvgNode(node, box->second, told[node.name]);
    }
  }
  const std::size_t height = 2 * kMargin + kHeading + rows * kRowHeight;
  return "<svg xmlns=\"http://www.w3.org/2000/svg\"" + Number("width", width) +
         Number("height", height) + ">\n<title>" + Shown(file.files.first.path) + "</title>\n" +
         kStyle + body + "</svg>\n";
}

}  // namespace ProcMgr::Check
