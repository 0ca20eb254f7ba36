#include "tools/pmctl/table.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <vector>

#include "base/printable.h"

namespace PmCtl {
namespace {

constexpr std::size_t kColumns = 7;
// Numbers stand to the right.
constexpr std::array<bool, kColumns> kIsNumber = {false, false, false, true, false, false, true};
constexpr std::array<const char*, kColumns> kKeys = {"name",  "kind",  "owner",   "pid",
                                                     "state", "since", "restarts"};

using Row = std::array<std::string, kColumns>;

std::string Cell(const nlohmann::json& value) {
  if (value.is_null()) {
    return "-";
  }
  return value.is_string() ? ProcMgr::Printable(value.get<std::string>()) : value.dump();
}

std::string FormatRow(const Row& row, const std::array<std::size_t, kColumns>& widths) {
  std::string line;
  for (std::size_t i = 0; i < kColumns; ++i) {
    const std::string space(widths[i] - row[i].size(), ' ');
    line += kIsNumber[i] ? space + row[i] : row[i] + space;
    line += i + 1 < kColumns ? "  " : "\n";
  }
  return line;
}

}  // namespace

std::string FormatTable(const nlohmann::json& picture) {
  std::vector<Row> rows = {{"NAME", "KIND", "OWNER", "PID", "STATE", "SINCE", "RESTARTS"}};
  for (const nlohmann::json& process : picture.at("processes")) {
    Row& row = rows.emplace_back();
    std::transform(kKeys.begin(), kKeys.end(), row.begin(),
                   [&process](const char* key) { return Cell(process.at(key)); });
  }
  std::array<std::size_t, kColumns> widths{};
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < kColumns; ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string text;
  for (const Row& row : rows) {
    text += FormatRow(row, widths);
  }
  return text;
}

}  // namespace PmCtl
