// pmcheck: checks service files with the parser of the daemon, without starting anything.
#include <syslog.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/manifest.h"
#include "base/printable.h"
#include "core/log.h"

namespace {

using ProcMgr::ApplicationManifest;
using ProcMgr::DependGraph;
using ProcMgr::ParseAndDepend;

constexpr int kGood = 0;
constexpr int kFaulty = 1;
constexpr int kUsage = 2;

bool hasLoggedError = false;

void PrintLine(int level, const char* text) {
  hasLoggedError = hasLoggedError || level <= LOG_ERR;
  (void)std::fprintf(stderr, "%s\n", text);
}

// Tells about dependencies on applications that the file doesn't have.
void PrintUnmet(const std::vector<ApplicationManifest>& manifests,
                const std::set<std::string>& names) {
  for (const ApplicationManifest& manifest : manifests) {
    for (const std::string& dependency : manifest.GetDependList()) {
      if (!names.contains(dependency)) {
        std::printf("unmet: %s depends on %s, which isn't there\n",
                    ProcMgr::Printable(manifest.GetAppName()).c_str(),
                    ProcMgr::Printable(dependency).c_str());
        hasLoggedError = true;
      }
    }
  }
}

// Walks the graph as the bring-up does, every start taken for a success.
void PrintRounds(const std::vector<std::string>& names) {
  DependGraph graph;
  ParseAndDepend::Instance().GetStartGraph(names, graph);
  for (int round = 1; !graph.IsEmpty(); ++round) {
    std::printf("round %d:", round);
    const std::set<std::string> vertices = graph.GetNoDependVertices();
    for (const std::string& name : vertices) {
      std::printf(" %s", ProcMgr::Printable(name, name.size()).c_str());
      graph.Pop(name);
    }
    std::printf("\n");
  }
}

// Yields false if the file, its dependencies or its start order have a fault.
bool CheckFile(const std::string& path, const std::map<std::string, std::string>& matchData) {
  std::vector<ApplicationManifest> manifests;
  hasLoggedError = false;
  if (ParseAndDepend::Instance().ParseYaml(ProcMgr::ParamType::kDefault, path, manifests,
                                           matchData) != 0) {
    std::printf("%s: faulty\n", path.c_str());
    return false;
  }
  std::vector<std::string> names;
  names.reserve(manifests.size());
  for (const ApplicationManifest& manifest : manifests) {
    names.push_back(manifest.GetAppName());
  }
  std::printf("%s: %zu application%s\n", path.c_str(), names.size(), names.size() == 1 ? "" : "s");
  PrintRounds(names);
  PrintUnmet(manifests, {names.begin(), names.end()});
  return !hasLoggedError;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CLI::App app(
        "Checks service files as the process manager reads them: faults go to standard error, the "
        "start order and unmet dependencies to standard output.\n"
        "Exit status: 0 all files are good, 1 a file has faults, 2 wrong usage.",
        "pmcheck");
    std::vector<std::string> files;
    app.add_option("FILE", files, "A service file; its includes are checked with it")->required();
    std::vector<std::string> matches;
    app.add_option("-m,--match", matches,
                   "Match data of the load, KEY=VALUE; may be given several times")
        ->allow_extra_args(false)
        ->check([](const std::string& pair) {
          return pair.find('=') == std::string::npos ? "must be KEY=VALUE" : "";
        });
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kGood : kUsage;
    }

    std::map<std::string, std::string> matchData;
    for (const std::string& pair : matches) {
      const std::size_t equals = pair.find('=');
      matchData.emplace(pair.substr(0, equals), pair.substr(equals + 1));
    }
    ProcMgr::SetLogSink(&PrintLine);
    bool areGood = true;
    for (const std::string& file : files) {
      areGood = CheckFile(file, matchData) && areGood;
    }
    return areGood ? kGood : kFaulty;
  } catch (const std::exception& failure) {
    (void)std::fprintf(stderr, "pmcheck: %s\n", failure.what());
    return kUsage;
  }
}
