#include "status/picture_json.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/names.h"
#include "status/json_writer.h"

namespace ProcMgr::Status {
namespace {

using std::chrono::floor;
using std::chrono::microseconds;

void WriteTime(JsonWriter& json, WallTime time) {
  json.Seconds(floor<microseconds>(time.time_since_epoch()));
}

void WriteMilliseconds(JsonWriter& json, const std::optional<microseconds>& time) {
  if (time) {
    json.Milliseconds(*time);
  } else {
    json.Null();
  }
}

template <typename Numbers>
void WriteNumbers(JsonWriter& json, const Numbers& numbers) {
  json.Open('[');
  for (const auto number : numbers) {
    json.Number(number);
  }
  json.Close(']');
}

// What every answer begins with.
JsonWriter BeginAnswer() {
  JsonWriter json;
  json.Open('{');
  json.Key("version").Number(1);
  WriteTime(json.Key("time"), std::chrono::system_clock::now());
  json.Key("uptime").Seconds(floor<microseconds>(SteadyNow().time_since_epoch()));
  return json;
}

std::string EndAnswer(JsonWriter json) {
  json.Close('}');
  return std::move(json).Line();
}

void WriteCause(JsonWriter& json, CauseKind what, const std::string& text, const std::string& on) {
  json.Open('{');
  json.Key("what").Text(WordOf(what));
  json.Key("text").Text(text);
  json.Key("on").TextOrNull(on);
  json.Close('}');
}

// Whoever waits for its turn waits for the one that the boot waits for.
void WriteCauseOf(JsonWriter& json, const AppPicture& app, const ManagerPicture& manager) {
  if (app.cause != nullptr) {
    WriteCause(json, app.cause->what, app.cause->text, app.cause->on);
  } else if (app.state != AppState::kWaiting) {
    json.Null();
  } else if (manager.awaited == nullptr) {
    WriteCause(json, CauseKind::kTurn, "its turn has not come", {});
  } else {
    const std::string& awaited = manager.awaited->name;
    WriteCause(json, CauseKind::kTurn,
               "its turn comes behind " + awaited + ", which the boot waits for", awaited);
  }
}

void WriteExits(JsonWriter& json, const AppPicture& app) {
  json.Open('[');
  if (app.exits != nullptr) {
    for (const Exit& exit : *app.exits) {
      json.Open('{');
      WriteTime(json.Key("time"), exit.time);
      json.Key("pid").Number(exit.pid);
      json.Key("how").Text(WordOf(exit.how));
      json.Key("value").Number(exit.value);
      json.Key("text").Text(exit.text);
      json.Close('}');
    }
  }
  json.Close(']');
}

// The members alone, for an object that may have more.
void WriteApp(JsonWriter& json, const AppPicture& app, const ManagerPicture& manager) {
  const AppFacts& facts = *app.facts;
  json.Key("name").Text(facts.name);
  json.Key("kind").Text(WordOf(facts.kind));
  json.Key("owner").TextOrNull(facts.owner.View());
  json.Key("state").Text(WordOf(app.state));
  json.Key("pid").NumberOrNull(app.pid == 0 ? std::nullopt : std::optional(app.pid));
  WriteTime(json.Key("since"), app.since);
  json.Key("reporting").Bool(facts.isReporting);
  WriteMilliseconds(json.Key("ready_ms"),
                    app.readyIn.count() < 0 ? std::nullopt : std::optional(app.readyIn));
  json.Key("restarts").Open('{');
  json.Key("count").Number(app.restarts);
  json.Key("policy").Text(WordOf(facts.policy));
  json.Key("left").NumberOrNull(RestartsLeft(app, SteadyNow()));
  json.Close('}');
  WriteExits(json.Key("exits"), app);
  WriteCauseOf(json.Key("cause"), app, manager);
}

void WriteManager(JsonWriter& json, const ManagerPicture& manager) {
  json.Open('{');
  json.Key("pid").Number(getpid());
  WriteTime(json.Key("since"), manager.since);
  json.Key("boot").Text(manager.isBootDone ? "done" : "running");
  json.Key("awaited");
  if (manager.awaited == nullptr) {
    json.Null();
  } else {
    json.Open('{');
    json.Key("name").Text(manager.awaited->name);
    WriteTime(json.Key("since"), manager.awaitedSince);
    json.Close('}');
  }
  json.Close('}');
}

void WriteDepends(JsonWriter& json, const AppFacts& facts, const Picture& picture) {
  json.Open('[');
  for (const std::string& name : facts.depends) {
    const auto found =
        std::find_if(picture.apps.begin(), picture.apps.end(), [&name](const AppPicture& app) {
          return app.facts->kind == AppKind::kBase && app.facts->name == name;
        });
    json.Open('{');
    json.Key("name").Text(name);
    json.Key("state").TextOrNull(found == picture.apps.end() ? "" : WordOf(found->state));
    json.Close('}');
  }
  json.Close(']');
}

// Its own group, and the supplementary ones as the kernel has them.
void WriteGroups(JsonWriter& json, const AppFacts& facts, const ProcFacts& process) {
  std::vector<std::uint64_t> groups = process.groups.value_or(std::vector<std::uint64_t>());
  std::erase(groups, facts.gid);
  groups.insert(groups.begin(), facts.gid);
  WriteNumbers(json, groups);
}

void WriteCores(JsonWriter& json, const AppFacts& facts, const ProcFacts& process) {
  json.Open('{');
  WriteNumbers(json.Key("asked"), facts.cores);
  json.Key("kernel");
  if (process.cores) {
    WriteNumbers(json, *process.cores);
  } else {
    json.Null();
  }
  json.Close('}');
}

void WriteCgroups(JsonWriter& json, const ProcFacts& process) {
  if (!process.cgroups) {
    json.Null();
    return;
  }
  json.Open('{');
  for (const auto& [controllers, path] : *process.cgroups) {
    json.Key(controllers).Text(path);
  }
  json.Close('}');
}

}  // namespace

std::string StatusLine(const Picture& picture) {
  JsonWriter json = BeginAnswer();
  WriteManager(json.Key("manager"), picture.manager);
  json.Key("apps").Open('[');
  for (const AppPicture& app : picture.apps) {
    json.Open('{');
    WriteApp(json, app, picture.manager);
    json.Close('}');
  }
  json.Close(']');
  return EndAnswer(std::move(json));
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
  JsonWriter json = BeginAnswer();
  WriteApp(json, app, picture.manager);
  json.Key("path").TextOrNull(facts.path);
  json.Key("arguments").Open('[');
  for (const std::string& argument : facts.arguments) {
    json.Text(argument);
  }
  json.Close(']');
  // Of a process that has announced itself nothing was asked for.
  const bool isStranger = facts.kind == AppKind::kSelf && process.user;
  json.Key("user").Number(isStranger ? *process.user : facts.uid);
  WriteGroups(json.Key("groups"), facts, process);
  WriteDepends(json.Key("depends"), facts, picture);
  WriteCores(json.Key("cores"), facts, process);
  WriteCgroups(json.Key("cgroups"), process);
  json.Key("threads").NumberOrNull(process.threads);
  json.Key("cpu_ms").NumberOrNull(process.cpuMs);
  json.Key("rss_kib").NumberOrNull(process.rssKib);
  json.Key("fds").NumberOrNull(process.fds);
  json.Key("channel").Bool(surroundings.hasChannel);
  json.Key("beat");
  if (surroundings.sinceBeat) {
    json.Seconds(*surroundings.sinceBeat);
  } else {
    json.Null();
  }
  json.Key("start_file").TextOrNull(facts.startFile.View());
  return EndAnswer(std::move(json));
}

std::string BootLine(const BootPicture& boot) {
  JsonWriter json = BeginAnswer();
  json.Key("begin").Milliseconds({});
  WriteMilliseconds(json.Key("end"), boot.end);
  json.Key("spans").Open('[');
  for (const Span& span : boot.spans) {
    json.Open('{');
    json.Key("name").Text(span.facts == nullptr ? kManagerName : span.facts->name);
    json.Key("phase").Text(WordOf(span.phase));
    json.Key("begin").Milliseconds(span.begin);
    WriteMilliseconds(json.Key("end"), span.end);
    json.Close('}');
  }
  json.Close(']');
  return EndAnswer(std::move(json));
}

std::string ErrorLine(const std::string& text) {
  JsonWriter json = BeginAnswer();
  json.Key("error").Text(text);
  return EndAnswer(std::move(json));
}

}  // namespace ProcMgr::Status
