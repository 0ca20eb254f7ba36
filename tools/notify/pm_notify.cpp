// pm-notify: makes any command a base service. It serves the channel to the manager in the
// command's place, and reports, beats and ends for it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "base/names.h"
#include "tools/notify/child.h"
#include "tools/notify/notified_service.h"

namespace {

using Notify::ReadyBy;
using Notify::Wish;

constexpr const char* kHelp =
    "pm-notify [--name NAME] --serve [--ready-when COMMAND | --ready] [--beat] -- COMMAND...\n\n"
    "Serves a service's channel to the process manager for COMMAND, which becomes its child and "
    "needs to know nothing of the manager. The service is reported ready when COMMAND sends "
    "READY=1 "
    "to the datagram socket NOTIFY_SOCKET of its environment, or as --ready or --ready-when say. "
    "STOPPING=1 there reports that it goes down, and WATCHDOG=1 is a beat.\n"
    "SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1 and SIGUSR2 are passed on. pm-notify ends as "
    "COMMAND "
    "ends, with its exit status or by its signal, and COMMAND is killed if pm-notify is.\n"
    "Exit status: that of COMMAND; 1 the name can't be served, 2 wrong usage or no name, 126 "
    "COMMAND "
    "can't be run, 127 there is no COMMAND.";

// The service's name if none was given; says what is missing if there is none.
bool FindName(std::string& name) {
  if (!name.empty()) {
    return true;
  }
  const char* const own = std::getenv("PROC_NAME");
  name = own != nullptr ? own : "";
  if (!name.empty() && name != ProcMgr::kManagerName) {
    return true;
  }
  (void)std::fprintf(stderr,
                     "pm-notify: the service has no name: PROC_NAME %s; give --name NAME, or "
                     "envArgv: {PROC_NAME: NAME} in the service file\n",
                     name.empty() ? "isn't set" : "is PROCMGR, inherited from the manager");
  return false;
}

int Run(Wish wish) {
  if (!FindName(wish.name)) {
    return Notify::kUsage;
  }
  int ended = 0;
  {
    Notify::NotifiedService service(std::move(wish));
    if (const int status = service.Run(); status != 0) {
      return status;
    }
    ended = service.CommandStatus();
  }
  // Nothing is left to be cleaned up: this may be the end.
  return Notify::EndLike(ended);
}

int RunWithArguments(int argc, char** argv) {
  CLI::App app{kHelp, "pm-notify"};
  app.set_version_flag("--version", "pm-notify " PM_VERSION);
  // The library would take the command's words apart where they look like its own lists.
  char** const end = argv + argc;
  char** const separator =
      std::find_if(argv, end, [](const char* word) { return std::string_view(word) == "--"; });
  const int own = static_cast<int>(separator - argv);
  Wish wish;
  if (separator != end) {
    wish.command.assign(separator + 1, end);
  }
  bool serve = false;
  bool ready = false;
  app.add_option("--name", wish.name,
                 "The service's name, its appName; without it the PROC_NAME of the environment");
  app.add_flag("--serve", serve, "Serve the channel for COMMAND")->required();
  CLI::Option* const now = app.add_flag("--ready", ready, "Ready as soon as COMMAND runs");
  CLI::Option* const check =
      app.add_option(
             "--ready-when", wish.readyWhen,
             "Ready as soon as this line for the shell succeeds; it is run again and again, "
             "with a pause of 200 ms, and finds COMMAND's process id in MAINPID")
          ->excludes(now);
  app.add_flag("--beat", wish.beat,
               "Beat as long as COMMAND is there, which says nothing of its work; without it "
               "COMMAND is told by WATCHDOG_USEC to beat");
  try {
    app.parse(own, argv);
    if (wish.command.empty()) {
      throw CLI::RequiredError("no COMMAND behind a --: it");
    }
    if (!check->empty() && wish.readyWhen.empty()) {
      throw CLI::ValidationError("--ready-when", "an empty command");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : Notify::kUsage;
  }
  if (ready) {
    wish.readyBy = ReadyBy::kNow;
  } else if (!check->empty()) {
    wish.readyBy = ReadyBy::kCheck;
  }
  return Run(std::move(wish));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunWithArguments(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "pm-notify: %s\n", error.what());
  } catch (...) {
    (void)std::fprintf(stderr, "pm-notify: failed for an unknown reason\n");
  }
  return Notify::kCantServe;
}
