#include "status/picture_json.h"

#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/names.h"

namespace ProcMgr::Status {
namespace {

using Json = nlohmann::ordered_json;

template <typename Duration>
double Seconds(Duration duration) {
  return std::chrono::duration<double>(std::chrono::floor<std::chrono::microseconds>(duration))
      .count();
}

double WallSeconds(WallTime time) {
  return Seconds(time.time_since_epoch());
}

Json Milliseconds(const std::optional<std::chrono::microseconds>& time) {
  constexpr double kPerMillisecond = 1000.0;
  return time ? Json(static_cast<double>(time->count()) / kPerMillisecond) : Json(nullptr);
}

template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json TextOrNull(const std::string& text) {
  return text.empty() ? Json(nullptr) : Json(text);
}

Json Answer() {
  return {{"version", 1},
          {"time", WallSeconds(std::chrono::system_clock::now())},
          {"uptime", Seconds(SteadyNow().time_since_epoch())}};
}

// A name from a file may hold what isn't UTF-8.
std::string Text(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Line(const Json& answer) {
  return Text(answer) + '\n';
}

// An answer whose last member is a long list: each element becomes text at once, for a tree of all
// of them would take ten times the memory.
class ListLine {
 public:
  ListLine(const Json& answer, const char* key) : text_(Text(answer)) {
    text_.back() = ',';  // In place of the brace that ends the object.
    text_.append("\"").append(key).append("\":[");
  }
  void Add(const Json& element) {
    text_.append(std::exchange(separator_, ",")).append(Text(element));
  }
  [[nodiscard]] std::string Finish() && { return std::move(text_.append("]}\n")); }

 private:
  std::string text_;
  const char* separator_ = "";
};

Json CauseJson(const Cause& cause) {
  return {{"what", WordOf(cause.what)}, {"text", cause.text}, {"on", TextOrNull(cause.on)}};
}

// Whoever waits for its turn waits for the one that the boot waits for.
Json CauseOf(const AppPicture& app, const ManagerPicture& manager) {
  if (app.cause != nullptr) {
    return CauseJson(*app.cause);
  }
  if (app.state != AppState::kWaiting) {
    return nullptr;
  }
  if (manager.awaited == nullptr) {
    return CauseJson({CauseKind::kTurn, "its turn has not come", {}});
  }
  return CauseJson({CauseKind::kTurn,
                    "its turn comes behind " + manager.awaited->name + ", which the boot waits for",
                    manager.awaited->name});
}

Json ExitsOf(const AppPicture& app) {
  Json list = Json::array();
  if (app.exits != nullptr) {
    for (const Exit& exit : *app.exits) {
      list.push_back({{"time", WallSeconds(exit.time)},
                      {"pid", exit.pid},
                      {"how", WordOf(exit.how)},
                      {"value", exit.value},
                      {"text", exit.text}});
    }
  }
  return list;
}

Json AppJson(const AppPicture& app, const ManagerPicture& manager) {
  const AppFacts& facts = *app.facts;
  Json restarts = Json::object();
  restarts.emplace("count", app.restarts);
  restarts.emplace("policy", WordOf(facts.policy));
  restarts.emplace("left", OrNull(RestartsLeft(app, SteadyNow())));
  Json json = Json::object();
  json.emplace("name", facts.name);
  json.emplace("kind", WordOf(facts.kind));
  json.emplace("owner", TextOrNull(facts.owner));
  json.emplace("state", WordOf(app.state));
  json.emplace("pid", app.pid == 0 ? Json(nullptr) : Json(app.pid));
  json.emplace("since", WallSeconds(app.since));
  json.emplace("reporting", facts.isReporting);
  json.emplace("ready_ms", Milliseconds(app.readyIn));
  json.emplace("restarts", std::move(restarts));
  json.emplace("exits", ExitsOf(app));
  json.emplace("cause", CauseOf(app, manager));
  return json;
}

Json ManagerJson(const ManagerPicture& manager) {
  Json awaited = nullptr;
  if (manager.awaited != nullptr) {
    awaited = {{"name", manager.awaited->name}, {"since", WallSeconds(manager.awaitedSince)}};
  }
  return {{"pid", getpid()},
          {"since", WallSeconds(manager.since)},
          {"boot", manager.isBootDone ? "done" : "running"},
          {"awaited", std::move(awaited)}};
}

Json DependsOf(const AppFacts& facts, const Picture& picture) {
  Json list = Json::array();
  for (const std::string& name : facts.depends) {
    const auto found =
        std::find_if(picture.apps.begin(), picture.apps.end(), [&name](const AppPicture& app) {
          return app.facts->kind == AppKind::kBase && app.facts->name == name;
        });
    list.push_back(
        {{"name", name},
         {"state", found == picture.apps.end() ? Json(nullptr) : Json(WordOf(found->state))}});
  }
  return list;
}

// Its own group, and the supplementary ones as the kernel has them.
Json GroupsOf(const AppFacts& facts, const ProcFacts& process) {
  Json list = Json::array({facts.gid});
  if (process.groups) {
    for (const std::uint64_t group : *process.groups) {
      if (group != facts.gid) {
        list.push_back(group);
      }
    }
  }
  return list;
}

Json CgroupsOf(const ProcFacts& process) {
  if (!process.cgroups) {
    return nullptr;
  }
  Json groups = Json::object();
  for (const auto& [controllers, path] : *process.cgroups) {
    groups[controllers] = path;
  }
  return groups;
}

}  // namespace

std::string StatusLine(const Picture& picture) {
  Json answer = Answer();
  answer["manager"] = ManagerJson(picture.manager);
  ListLine line(answer, "apps");
  for (const AppPicture& app : picture.apps) {
    line.Add(AppJson(app, picture.manager));
  }
  return std::move(line).Finish();
}

std::string ChangeLine(const Change& change) {
  Picture picture{change.manager, {}};
  if (change.app) {
    picture.apps.push_back(*change.app);
  }
  return StatusLine(picture);
}

std::string AppLine(const AppPicture& app, const Picture& picture,
                    const AppSurroundings& surroundings) {
  const AppFacts& facts = *app.facts;
  const ProcFacts& process = surroundings.process;
  Json answer = Answer();
  answer.update(AppJson(app, picture.manager));
  answer["path"] = TextOrNull(facts.path);
  answer["arguments"] = facts.arguments;
  // Of a process that has announced itself nothing was asked for.
  const bool isStranger = facts.kind == AppKind::kSelf && process.user;
  answer["user"] = isStranger ? *process.user : facts.uid;
  answer["groups"] = GroupsOf(facts, process);
  answer["depends"] = DependsOf(facts, picture);
  answer["cores"] = {{"asked", facts.cores}, {"kernel", OrNull(process.cores)}};
  answer["cgroups"] = CgroupsOf(process);
  answer["threads"] = OrNull(process.threads);
  answer["cpu_ms"] = OrNull(process.cpuMs);
  answer["rss_kib"] = OrNull(process.rssKib);
  answer["fds"] = OrNull(process.fds);
  answer["channel"] = surroundings.hasChannel;
  answer["beat"] = surroundings.sinceBeat ? Json(Seconds(*surroundings.sinceBeat)) : Json(nullptr);
  answer["start_file"] = TextOrNull(facts.startFile);
  return Line(answer);
}

std::string BootLine(const BootPicture& boot) {
  Json answer = Answer();
  answer["begin"] = 0.0;
  answer["end"] = Milliseconds(boot.end);
  ListLine line(answer, "spans");
  for (const Span& span : boot.spans) {
    line.Add({{"name", span.facts == nullptr ? kManagerName : span.facts->name},
              {"phase", WordOf(span.phase)},
              {"begin", Milliseconds(span.begin)},
              {"end", Milliseconds(span.end)}});
  }
  return std::move(line).Finish();
}

std::string ErrorLine(const std::string& text) {
  Json answer = Answer();
  answer["error"] = text;
  return Line(answer);
}

}  // namespace ProcMgr::Status
