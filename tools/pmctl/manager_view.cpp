#include "tools/pmctl/manager_view.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>

#include "base/printable.h"
#include "tools/pmctl/words.h"

namespace PmCtl {
namespace {

using nlohmann::json;

// What to do about a cause; empty where nothing is to be done.
std::string Advice(const std::string& what, const json& app) {
  const std::string name = Text(app.at("name"));
  const std::pair<const char*, std::string> advice[] = {
      {"missing", "install its program, or mend binPath in the service file (pmcheck --host)"},
      {"permission", "let its user execute the program (pmcheck --host)"},
      {"argument", "give it what its manifest takes, without a shell's characters"},
      {"digest", "install the program that bin_hash.cfg lists, or list this one"},
      {"core", "give it cores of the control set"},
      {"fork", "the system had no process left: see its limits and its memory"},
      {"exec", "see what the child said, and the interpreter and the user of the program"},
      {"exit", "see what it has said: pmctl show " + name},
      {"signal", "see what it has said: pmctl show " + name + "; and who sent the signal"},
      {"limit", "mend what ends it; it comes up again with the manager"},
      {"report", "it has to report that it is ready: pmctl show " + name},
      {"option", "name it in procmgr= of the kernel command line"},
  };
  const auto* const found =
      std::find_if(std::begin(advice), std::end(advice),
                   [&what](const auto& entry) { return entry.first == what; });
  if (found != std::end(advice)) {
    return found->second;
  }
  if (what != "request" || app.at("state") != "ended") {
    return "";
  }
  return app.at("kind") == "general" ? "start it: pmctl start " + name
                                     : "it comes up again with the manager";
}

const json* Find(const json& status, const std::string& name) {
  const json& apps = status.at("apps");
  const auto found = std::find_if(apps.begin(), apps.end(), [&name](const json& app) {
    return app.at("name").get<std::string>() == name;
  });
  return found == apps.end() ? nullptr : &*found;
}

std::string Exit(const json& answer, const json& exit) {
  return Text(exit.at("how")) + " " + Text(exit.at("value")) + " " + Text(exit.at("text")) + ", " +
         Ago(answer.at("time").get<double>() - exit.at("time").get<double>()) + " ago, pid " +
         Text(exit.at("pid"));
}

std::string LastExit(const json& status, const json& app) {
  const json& exits = app.at("exits");
  return exits.empty() ? "it has never ended"
                       : "before that it ended: " + Exit(status, exits.front());
}

// One line of the chain, and the next name on it.
std::string Link(const json& status, const json& app, std::string& next) {
  const std::string name = app.at("name").get<std::string>();
  std::string line =
      ProcMgr::Printable(name) + " is " + Text(app.at("state")) + " for " + Since(status, app);
  const json& cause = app.at("cause");
  next.clear();
  if (cause.is_null()) {
    return line + "; " + LastExit(status, app) + "\n";
  }
  line += ": " + Text(cause.at("text"));
  if (!cause.at("on").is_null()) {
    next = cause.at("on").get<std::string>();
  }
  const std::string advice = Advice(cause.at("what").get<std::string>(), app);
  return line + (advice.empty() ? "" : " -> " + advice) + "\n";
}

std::string Joined(const json& list) {
  std::string text;
  for (const json& entry : list) {
    text += (text.empty() ? "" : " ") + Text(entry);
  }
  return text.empty() ? "-" : text;
}

std::string Depends(const json& list) {
  std::string text;
  for (const json& entry : list) {
    text +=
        (text.empty() ? "" : ", ") + Text(entry.at("name")) + " (" + Text(entry.at("state")) + ")";
  }
  return text.empty() ? "-" : text;
}

// What becomes of it at its next end.
std::string NextEnd(const json& app) {
  const json& restarts = app.at("restarts");
  const std::string policy = Text(restarts.at("policy"));
  if (app.at("kind") != "base") {
    return "it stays down until somebody asks for it";
  }
  if (restarts.at("left").is_null()) {
    return "the manager brings it back (" + policy + ")";
  }
  return restarts.at("left") == 0
             ? "it stays down (" + policy + ")"
             : "the manager brings it back (" + policy + "), " + Text(restarts.at("left")) +
                   " times more in the present window";
}

void AddFact(std::string& text, const char* label, const std::string& value) {
  char line[32];
  (void)std::snprintf(line, sizeof(line), "%-12s ", label);
  text += line + value + "\n";
}

}  // namespace

std::string FormatApp(const json& app) {
  std::string text;
  AddFact(text, "name", Text(app.at("name")) + " (" + Text(app.at("kind")) + ")");
  AddFact(text, "state", Text(app.at("state")) + " for " + Since(app, app));
  if (!app.at("cause").is_null()) {
    AddFact(text, "cause", Text(app.at("cause").at("text")));
  }
  AddFact(text, "pid", Text(app.at("pid")));
  AddFact(text, "owner", Text(app.at("owner")));
  AddFact(text, "program", Text(app.at("path")) + " " + Joined(app.at("arguments")));
  AddFact(text, "user", Text(app.at("user")) + ", groups " + Joined(app.at("groups")));
  AddFact(text, "depends on", Depends(app.at("depends")));
  AddFact(text, "restarts", Text(app.at("restarts").at("count")));
  AddFact(text, "if it ends", NextEnd(app));
  AddFact(
      text, "ready after",
      app.at("ready_ms").is_null() ? "-" : OneDecimal(app.at("ready_ms").get<double>()) + " ms");
  AddFact(text, "channel", app.at("channel").get<bool>() ? "open" : "none");
  AddFact(text, "beat",
          app.at("beat").is_null() ? "-" : Ago(app.at("beat").get<double>()) + " ago");
  AddFact(text, "uses",
          Text(app.at("rss_kib")) + " KiB, " + Text(app.at("cpu_ms")) + " ms of CPU, " +
              Text(app.at("threads")) + " threads, " + Text(app.at("fds")) + " descriptors");
  for (const json& exit : app.at("exits")) {
    AddFact(text, "ended", Exit(app, exit));
  }
  return text;
}

std::string FormatWhy(const json& status, const std::string& name) {
  std::string text;
  std::set<std::string> seen;
  std::string indent;
  for (std::string next = name; !next.empty() && seen.insert(next).second; indent += "  ") {
    const json* const app = Find(status, next);
    if (app == nullptr) {
      return text.empty() ? "" : text + indent + ProcMgr::Printable(next) + " is not known\n";
    }
    text += indent + Link(status, *app, next);
  }
  return text;
}

}  // namespace PmCtl
