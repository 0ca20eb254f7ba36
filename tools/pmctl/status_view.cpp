#include "tools/pmctl/status_view.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/pmctl/table.h"
#include "tools/pmctl/words.h"

namespace PmCtl {
namespace {

using nlohmann::json;

// What a person is to look at first comes first, in the order of Urgency.
enum class Urgency : std::uint8_t { kWrong, kPending, kGood, kOver };

Urgency UrgencyOf(const json& app) {
  const auto state = app.at("state").get<std::string>();
  if (IsWrong(state)) {
    return Urgency::kWrong;
  }
  if (state == "running") {
    return Urgency::kGood;
  }
  return state == "ended" || state == "left-out" ? Urgency::kOver : Urgency::kPending;
}

Colour ColourOf(Urgency urgency) {
  switch (urgency) {
    case Urgency::kWrong:
      return Colour::kWrong;
    case Urgency::kPending:
      return Colour::kPending;
    case Urgency::kGood:
      return Colour::kGood;
    case Urgency::kOver:
      return Colour::kFaint;
  }
  return Colour::kPlain;
}

std::string FormatManager(const json& status, std::size_t wrong) {
  const json& manager = status.at("manager");
  std::string text = "manager, pid " + Text(manager.at("pid")) + ", up for " +
                     Since(status, manager) + "; " + std::to_string(status.at("apps").size()) +
                     " applications, " + std::to_string(wrong) + " wrong";
  if (const json& awaited = manager.at("awaited"); !awaited.is_null()) {
    text += "; the boot waits for " + Text(awaited.at("name")) + ", for " + Since(status, awaited);
  } else if (manager.at("boot") != "done") {
    text += "; the boot goes on";
  }
  return text + "\n";
}

}  // namespace

void KeepWrong(json& status) {
  json wrong = json::array();
  for (json& app : status.at("apps")) {
    if (UrgencyOf(app) == Urgency::kWrong) {
      wrong.push_back(std::move(app));
    }
  }
  status["apps"] = std::move(wrong);
}

std::string FormatStatus(const json& status, bool isColoured) {
  std::vector<std::pair<Urgency, const json*>> apps;
  for (const json& app : status.at("apps")) {
    apps.emplace_back(UrgencyOf(app), &app);
  }
  std::stable_sort(apps.begin(), apps.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  Table table({"NAME", "KIND", "OWNER", ">PID", "STATE", ">FOR", ">RESTARTS", "WHY"});
  std::size_t wrong = 0;
  for (const auto& [urgency, app] : apps) {
    const json& cause = app->at("cause");
    table.Add(
        {Text(app->at("name")), Text(app->at("kind")), Text(app->at("owner")), Text(app->at("pid")),
         Text(app->at("state")), Since(status, *app), Text(app->at("restarts").at("count")),
         cause.is_null() ? "" : Text(cause.at("text"))},
        ColourOf(urgency));
    wrong += urgency == Urgency::kWrong ? 1 : 0;
  }
  return FormatManager(status, wrong) + table.Text(isColoured);
}

}  // namespace PmCtl
