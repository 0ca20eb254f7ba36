// The command line that the base services of this folder share. A service is started by the
// manager, but people try it at a terminal too: it must tell them what it is and leave nothing
// behind.
#ifndef TOOLS_SERVICE_SERVICE_PROGRAM_H
#define TOOLS_SERVICE_SERVICE_PROGRAM_H

#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace Services {

// A manager opens the channel as soon as it has started the service, but a busy boot may take long.
inline constexpr unsigned kDefaultWaitSeconds = 60;

// A positional argument, the absolute path of a socket; `path` holds the default.
void AddSocketOption(CLI::App& app, const char* name, const char* text, std::string& path);

// --wait SECONDS, for BaseService::AwaitManager; `seconds` holds the default.
void AddWaitOption(CLI::App& app, unsigned& seconds);

// Reads the command line. Yields the exit status if that was all: 0 after --help or --version, 2 on
// wrong usage.
[[nodiscard]] std::optional<int> Parse(CLI::App& app, int argc, char** argv);

}  // namespace Services

#endif  // TOOLS_SERVICE_SERVICE_PROGRAM_H
