#include "tools/pmctl/words.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "base/printable.h"

namespace PmCtl {

using nlohmann::json;

std::string Text(const json& value) {
  if (value.is_string()) {
    return ProcMgr::Printable(value.get<std::string>());
  }
  return value.is_null() ? "-" : value.dump();
}

std::string Ago(double seconds) {
  char text[64];
  if (seconds < 120) {
    (void)std::snprintf(text, sizeof(text), "%.1f s", std::max(seconds, 0.0));
  } else if (seconds < 7200) {
    (void)std::snprintf(text, sizeof(text), "%.0f min", seconds / 60);
  } else {
    (void)std::snprintf(text, sizeof(text), "%.1f h", seconds / 3600);
  }
  return text;
}

std::string Since(const json& answer, const json& app) {
  return Ago(answer.at("time").get<double>() - app.at("since").get<double>());
}

std::string OneDecimal(double value) {
  char text[32];
  (void)std::snprintf(text, sizeof(text), "%.1f", value);
  return text;
}

bool IsWrong(const std::string& state) {
  return state == "failed" || state == "given-up" || state == "refused" || state == "blocked";
}

}  // namespace PmCtl
