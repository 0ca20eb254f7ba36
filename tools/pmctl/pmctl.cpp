// pmctl, the operator's program: what runs on this board, and what shall run.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/pmctl/manager_commands.h"
#include "tools/pmctl/operator_commands.h"
#include "tools/pmctl/options.h"
#include "tools/pmctl/top.h"

namespace {

using PmCtl::Options;

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

void AddStatus(CLI::App& app, Options& options, int& status) {
  CLI::App* const command = app.add_subcommand(
      "status", "every application that the manager knows of, what is wrong first");
  command->add_flag("--json", options.asJson, "as JSON, one line");
  command->add_flag("--watch", options.watch, "again at every change, until Ctrl-C");
  command->add_flag(
      "--failed", options.onlyWrong,
      "only what has failed, was given up, refused or blocked; exit status 1 if there "
      "is any");
  command->callback([&] { status = PmCtl::Status(options); });
}

void AddBoot(CLI::App& app, Options& options, int& status) {
  CLI::App* const command = app.add_subcommand("boot", "where the time of the boot went");
  command->add_flag("--json", options.asJson, "as JSON, one line");
  command->add_option("--html", options.htmlFile, "write it to FILE as a page for a browser")
      ->option_text("FILE");
  command->add_option("--svg", options.svgFile, "write it to FILE as a picture")
      ->option_text("FILE");
  command->add_option("--save", options.saveFile, "write it to FILE for --compare")
      ->option_text("FILE");
  command
      ->add_option("--compare", options.compareFile,
                   "what has changed since the boot that FILE has")
      ->option_text("FILE");
  command->callback([&] { status = PmCtl::Boot(options); });
}

void AddTop(CLI::App& app, Options& options, int& status) {
  CLI::App* const command =
      app.add_subcommand("top", "what the applications use just now, until Ctrl-C");
  command->add_flag("--once", options.once, "once, and end");
  command->add_option("--interval", options.interval, "how long to measure, in seconds")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();
  command->add_option("--sort", options.sortKey, "by what to sort")
      ->check(CLI::IsMember(
          std::vector<std::string>(std::begin(PmCtl::kTopKeys), std::end(PmCtl::kTopKeys))))
      ->capture_default_str();
  command->callback([&] { status = PmCtl::Top(options); });
}

void AddNameList(CLI::App& app, Options& options, int& status) {
  CLI::App* const command = app.add_subcommand("names", "the names of all applications");
  command->add_flag("--general", options.onlyGeneral, "of those alone that may be started");
  command->callback([&] { status = PmCtl::Names(options); });
}

// Those that ask the manager itself.
void AddManagerCommands(CLI::App& app, Options& options, int& status) {
  AddStatus(app, options, status);
  CLI::App* const one = app.add_subcommand("show", "everything about one application");
  CLI::App* const why = app.add_subcommand(
      "why", "why an application is in its state, down to the root, and what to do about it");
  for (CLI::App* const command : {one, why}) {
    command->add_option("NAME", options.name, "the application's name")->required();
  }
  one->add_flag("--json", options.asJson, "as JSON, one line");
  one->callback([&] { status = PmCtl::Show(options); });
  why->callback([&] { status = PmCtl::Why(options); });
  AddBoot(app, options, status);
  AddTop(app, options, status);
  AddNameList(app, options, status);

  CLI::App* const shutdown = app.add_subcommand(
      "shutdown", "end the manager and all that it has started, in the reverse order of the boot");
  shutdown->add_flag("--now", options.now, "kill at once who doesn't end");
  shutdown->add_option("--timeout", options.stopTimeout, "how long to wait for the end, in seconds")
      ->check(CLI::Range(0.001, 3600.0))
      ->capture_default_str();
  shutdown->callback([&] { status = PmCtl::Shutdown(options); });
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
  load->callback([&] { status = PmCtl::Load("load", options); });
  reload->callback([&] { status = PmCtl::Load("reload", options); });
}

void AddRequests(CLI::App& app, Options& options, int& status) {
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
  start->callback([&] { status = PmCtl::Operate("start", options); });
  stop->callback([&] { status = PmCtl::Operate("stop", options); });
  restart->callback([&] { status = PmCtl::Operate("restart", options); });
  query->callback([&] { status = PmCtl::Query(options); });
}

int Run(int argc, char** argv) {
  Options options;
  int status = PmCtl::kDone;
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

  AddManagerCommands(app, options, status);
  AddRequests(app, options, status);
  AddLoadCommands(app, options, status);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? PmCtl::kDone : PmCtl::kWrongUsage;
  }
  if (app.get_subcommands().empty()) {
    (void)std::fputs(app.help().c_str(), stderr);
    return PmCtl::kWrongUsage;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const nlohmann::json::exception&) {
    (void)std::fputs("pmctl: the answer isn't what this pmctl expects: is it older or newer?\n",
                     stderr);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "pmctl: %s\n", e.what());
  }
  return PmCtl::kCantAsk;
}
