// pmctl, the operator's program: what runs on this board, and what shall run.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "base/printable.h"
#include "base/sleep.h"
#include "tools/local/local_client.h"
#include "tools/pmctl/manager_stop.h"
#include "tools/pmctl/manager_view.h"
#include "tools/pmctl/table.h"

namespace {

using nlohmann::json;

constexpr std::int64_t kRedrawNs = 1'000'000'000;
// What the service may take beyond the limit that it was given.
constexpr std::chrono::seconds kAnswerSlack{10};

enum ExitStatus : int { kDone = 0, kNotDone = 1, kWrongUsage = 2, kCantAsk = 3 };

struct Options {
  std::string socket = Local::kOperatorSocket;
  std::string manager = "/run/process-manager/status.sock";
  double timeout = 30;  // Seconds.
  double stopTimeout = 120;
  bool now = false;
  std::string name;
  bool asJson = false;
  bool watch = false;
  std::vector<std::string> names;
  std::vector<std::string> args;
  std::vector<std::string> env;
  std::string path;
  std::string vf;
  std::vector<std::string> match;
};

// Why the service can't be asked, and what to do about it.
std::string Advice(const std::string& socket, int error) {
  switch (error) {
    case EACCES:
      return "you may not ask the operator service: only root and the members of its group may "
             "(try sudo, or have yourself added to the group of " +
             socket + ")";
    case ENOENT:
    case ECONNREFUSED:
      return "the operator service isn't up: nobody serves " + socket +
             " (is process-manager running, and does its service file list the operator?)";
    case ETIMEDOUT:
      return "no answer in time; ask for more with --timeout, or look with pmctl status";
    default:
      return "can't ask the operator service at " + socket + ": " +
             std::generic_category().message(error);
  }
}

json Ask(const Options& options, const json& request) {
  const auto limit = std::chrono::milliseconds(static_cast<std::int64_t>(options.timeout * 1000));
  std::string text;
  try {
    text = Local::Ask(options.socket, request.dump(), limit + kAnswerSlack);
  } catch (const std::system_error& e) {
    throw std::runtime_error(Advice(options.socket, e.code().value()));
  }
  json answer = json::parse(text);
  if (answer.contains("error")) {
    throw std::runtime_error(ProcMgr::Printable(answer.at("error").get<std::string>(), 1000));
  }
  return answer;
}

int Status(const Options& options) {
  while (true) {
    const json picture = Ask(options, {{"request", "status"}});
    const std::string text = options.asJson ? picture.dump() + "\n" : PmCtl::FormatTable(picture);
    if (options.watch && !options.asJson && isatty(STDOUT_FILENO) == 1) {
      (void)std::fputs("\033[H\033[2J", stdout);
    }
    (void)std::fputs(text.c_str(), stdout);
    if (std::fflush(stdout) != 0) {
      throw std::runtime_error("can't write the table");
    }
    if (!options.watch) {
      return kDone;
    }
    ProcMgr::SleepNs(kRedrawNs);
  }
}

// Why the manager can't be asked, and what to do about it.
std::string ManagerAdvice(const std::string& socket, int error) {
  switch (error) {
    case EACCES:
      return "you may not ask the manager: only root and the members of the group of " + socket +
             " may";
    case ENOENT:
    case ECONNREFUSED:
      return "the manager isn't running, or doesn't tell its status: nobody serves " + socket;
    case ETIMEDOUT:
      return "the manager doesn't answer: it is stopped, or the machine is overloaded";
    default:
      return "can't ask the manager at " + socket + ": " + std::generic_category().message(error);
  }
}

json AskManager(const Options& options, const json& request) {
  constexpr std::chrono::seconds kLimit{2};
  try {
    json answer = json::parse(Local::Ask(options.manager, request.dump(), kLimit));
    if (answer.contains("error")) {
      throw std::runtime_error(ProcMgr::Printable(answer.at("error").get<std::string>(), 1000));
    }
    return answer;
  } catch (const std::system_error& e) {
    throw std::runtime_error(ManagerAdvice(options.manager, e.code().value()));
  }
}

int Print(const Options& options, const json& answer, const std::string& text) {
  (void)std::fputs(options.asJson ? (answer.dump() + "\n").c_str() : text.c_str(), stdout);
  if (std::fflush(stdout) != 0) {
    throw std::runtime_error("can't write the answer");
  }
  return kDone;
}

int Show(const Options& options) {
  const json answer = AskManager(options, {{"get", "app"}, {"name", options.name}});
  return Print(options, answer, PmCtl::FormatApp(answer));
}

int Why(const Options& options) {
  const json answer = AskManager(options, {{"get", "status"}});
  const std::string text = PmCtl::FormatWhy(answer, options.name);
  if (text.empty()) {
    throw std::runtime_error("the manager knows of no " + ProcMgr::Printable(options.name));
  }
  (void)std::fputs(text.c_str(), stdout);
  return kDone;
}

int Boot(const Options& options) {
  const json answer = AskManager(options, {{"get", "boot"}});
  return Print(options, answer, PmCtl::FormatBoot(answer));
}

int Shutdown(const Options& options) {
  const auto manager = [&options] {
    return AskManager(options, {{"get", "status"}}).at("manager").at("pid").get<pid_t>();
  };
  const auto limit =
      std::chrono::milliseconds(static_cast<std::int64_t>(options.stopTimeout * 1000));
  if (PmCtl::StopManager(manager, options.now, limit)) {
    (void)std::puts("the manager has ended, and all that it had started");
    return kDone;
  }
  (void)std::fputs("pmctl: the manager hasn't ended in time; its log tells what it waits for\n",
                   stderr);
  return kNotDone;
}

json MakeRequest(const char* operation, const Options& options) {
  return {{"request", operation}, {"timeoutMs", static_cast<std::int64_t>(options.timeout * 1000)}};
}

int Operate(const char* operation, const Options& options) {
  json request = MakeRequest(operation, options);
  request["names"] = options.names;
  if (!options.args.empty()) {
    request["args"] = options.args;
  }
  if (!options.env.empty()) {
    request["env"] = options.env;
  }
  if (!options.path.empty()) {
    request["path"] = options.path;
  }
  if (!options.vf.empty()) {
    request["vf"] = options.vf;
  }
  int status = kDone;
  const json answer = Ask(options, request);
  for (const json& result : answer.at("results")) {
    const bool ok = result.at("ok").get<bool>();
    (void)std::fprintf(ok ? stdout : stderr, "%s %s\n",
                       ProcMgr::Printable(result.at("name").get<std::string>()).c_str(),
                       result.at("text").get<std::string>().c_str());
    status = ok ? status : kNotDone;
  }
  return status;
}

int Query(const Options& options) {
  json request = MakeRequest("query", options);
  request["names"] = options.names;
  int status = kDone;
  const json answer = Ask(options, request);
  for (const json& result : answer.at("results")) {
    const auto word = result.at("status").get<std::string>();
    std::printf("%s %s\n", ProcMgr::Printable(result.at("name").get<std::string>()).c_str(),
                word.c_str());
    status = word == "running" ? status : kNotDone;
  }
  return status;
}

int Load(const char* operation, const Options& options) {
  json request = MakeRequest(operation, options);
  request["match"] = json::object();
  for (const std::string& pair : options.match) {
    const std::size_t equals = pair.find('=');
    request["match"][pair.substr(0, equals)] = pair.substr(equals + 1);
  }
  const json answer = Ask(options, request);
  const bool ok = answer.at("ok").get<bool>();
  (void)std::fprintf(ok ? stdout : stderr, "%s%s\n",
                     ok ? "" : "pmctl: ", answer.at("text").get<std::string>().c_str());
  return ok ? kDone : kNotDone;
}

std::string CheckPair(const std::string& text) {
  const std::size_t equals = text.find('=');
  return equals == std::string::npos || equals == 0 ? "'" + text + "' isn't KEY=VALUE" : "";
}

void AddTimeout(CLI::App& command, Options& options) {
  command.add_option("--timeout", options.timeout, "how long to wait for the outcome, in seconds")
      ->check(CLI::Range(0.001, 600.0))
      ->capture_default_str();
}

void AddNames(CLI::App& command, Options& options) {
  command.add_option("NAME", options.names, "names of applications")->required();
}

void AddDynamic(CLI::App& command, Options& options) {
  command
      .add_option("--arg", options.args,
                  "an argument, for an application that leaves its arguments open; repeat it")
      ->allow_extra_args(false);
  command.add_option("--path", options.path, "the path of the program, where it is a pattern");
  command
      .add_option("--env", options.env,
                  "an environment entry KEY=VALUE, where it is a pattern; repeat it")
      ->allow_extra_args(false)
      ->check(CLI::Validator(&CheckPair, "KEY=VALUE"));
  command.add_option("--vf", options.vf,
                     "the number of the device function, where it is a pattern");
}

// Those that ask the manager itself.
void AddManagerCommands(CLI::App& app, Options& options, int& status) {
  CLI::App* const one = app.add_subcommand("show", "everything about one application");
  CLI::App* const why = app.add_subcommand(
      "why", "why an application is in its state, down to the root, and what to do about it");
  for (CLI::App* const command : {one, why}) {
    command->add_option("NAME", options.name, "the application's name")->required();
  }
  CLI::App* const boot = app.add_subcommand("boot", "where the time of the boot went");
  for (CLI::App* const command : {one, boot}) {
    command->add_flag("--json", options.asJson, "as JSON, one line");
  }
  one->callback([&] { status = Show(options); });
  why->callback([&] { status = Why(options); });
  boot->callback([&] { status = Boot(options); });

  CLI::App* const shutdown = app.add_subcommand(
      "shutdown", "end the manager and all that it has started, in the reverse order of the boot");
  shutdown->add_flag("--now", options.now, "kill at once who doesn't end");
  shutdown->add_option("--timeout", options.stopTimeout, "how long to wait for the end, in seconds")
      ->check(CLI::Range(0.001, 3600.0))
      ->capture_default_str();
  shutdown->callback([&] { status = Shutdown(options); });
}

void AddLoadCommands(CLI::App& app, Options& options, int& status) {
  CLI::App* const load =
      app.add_subcommand("load", "load the operator's start-up file, for names that are new in it");
  CLI::App* const reload = app.add_subcommand(
      "reload", "load it again; what has changed counts from the next start of an application");
  for (CLI::App* const command : {load, reload}) {
    command
        ->add_option("KEY=VALUE", options.match,
                     "match data: what selects among the file's applications")
        ->check(CLI::Validator(&CheckPair, "KEY=VALUE"));
    AddTimeout(*command, options);
  }
  load->callback([&] { status = Load("load", options); });
  reload->callback([&] { status = Load("reload", options); });
}

int Run(int argc, char** argv) {
  Options options;
  int status = kDone;
  CLI::App app{
      "Shows and runs the applications of this board.\n"
      "Exit status: 0 done, 1 not done, 2 wrong usage, 3 can't ask the operator service or "
      "the manager.",
      "pmctl"};
  app.set_version_flag("--version", "pmctl " PM_VERSION);
  app.require_subcommand(0, 1);
  app.add_option("--socket", options.socket, "where the operator service is reached")
      ->capture_default_str();
  app.add_option("--manager", options.manager, "where the manager tells its status")
      ->capture_default_str();

  CLI::App* const show = app.add_subcommand("status", "every process that the manager knows of");
  show->add_flag("--json", options.asJson, "as JSON, one line");
  show->add_flag("--watch", options.watch, "again every second, until Ctrl-C");
  show->callback([&] { status = Status(options); });

  CLI::App* const start = app.add_subcommand("start", "start applications and wait until they run");
  CLI::App* const stop =
      app.add_subcommand("stop", "end applications and wait until they are gone");
  CLI::App* const restart =
      app.add_subcommand("restart", "end applications that run, and start them");
  CLI::App* const query = app.add_subcommand(
      "query", "ask the manager for running, stopped or gone; exit status 0 if all are running");
  for (CLI::App* const command : {start, stop, restart, query}) {
    AddNames(*command, options);
    AddTimeout(*command, options);
  }
  AddDynamic(*start, options);
  AddDynamic(*restart, options);
  start->callback([&] { status = Operate("start", options); });
  stop->callback([&] { status = Operate("stop", options); });
  restart->callback([&] { status = Operate("restart", options); });
  query->callback([&] { status = Query(options); });

  AddManagerCommands(app, options, status);

  AddLoadCommands(app, options, status);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kDone : kWrongUsage;
  }
  if (app.get_subcommands().empty()) {
    (void)std::fputs(app.help().c_str(), stderr);
    return kWrongUsage;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "pmctl: %s\n", e.what());
    return kCantAsk;
  }
}
