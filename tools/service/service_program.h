// The command line that the base services of this folder share. A service is started by the
// manager, but people try it at a terminal too: it must tell them what it is and leave nothing
// behind.
#ifndef TOOLS_SERVICE_SERVICE_PROGRAM_H
#define TOOLS_SERVICE_SERVICE_PROGRAM_H

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

namespace Services {

// A manager opens the channel as soon as it has started the service, but a busy boot may take long.
inline constexpr unsigned kDefaultWaitSeconds = 60;

// A positional argument, an absolute path; `path` holds the default.
void AddPathOption(CLI::App& app, const char* name, const char* text, std::string& path);

// --wait SECONDS, for BaseService::AwaitManager; `seconds` holds the default.
void AddWaitOption(CLI::App& app, unsigned& seconds);

// What one of these programs is, and what it is told by its command line.
template <typename Wish>
struct Program {
  const char* name;
  const char* version;
  const char* description;
  void (*addOptions)(CLI::App& app, Wish& wish);
  // Returns when it is told to end.
  void (*serve)(const Wish& wish);
};

// The whole of main. Yields the exit status: 0 told to end, or asked for its help or version; 1
// with a line on standard error if it can't serve; 2 on wrong usage.
template <typename Wish>
[[nodiscard]] int Main(int argc, char** argv, const Program<Wish>& program) {
  constexpr int kCantServe = 1;
  constexpr int kWrongUsage = 2;
  try {
    CLI::App app{std::string(program.description) +
                     "\nExit status: 0 told to end, 1 can't serve, 2 wrong usage.",
                 program.name};
    app.set_version_flag("--version", std::string(program.name) + " " + program.version);
    Wish wish;
    program.addOptions(app, wish);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? 0 : kWrongUsage;
    }
    program.serve(wish);
    return 0;
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "%s: %s\n", program.name, error.what());
    return kCantServe;
  }
}

}  // namespace Services

#endif  // TOOLS_SERVICE_SERVICE_PROGRAM_H
