// pmcheck: tells what will happen with service files, without starting anything.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/check/checks.h"
#include "tools/check/graph.h"
#include "tools/check/host.h"
#include "tools/check/report.h"
#include "tools/check/schema.h"

namespace {

using ProcMgr::Check::CheckedFile;
using ProcMgr::Check::Finding;
using ProcMgr::Check::Host;
using ProcMgr::Check::ServiceFile;
using ProcMgr::Check::Severity;

constexpr int kGood = 0;
constexpr int kFaulty = 1;
constexpr int kUsage = 2;

struct Wishes {
  std::vector<std::string> files;
  std::vector<std::string> matches;
  std::string format = "text";
  std::string graph;
  std::string root;
  bool isStrict = false;
  bool isHost = false;
  bool isSchema = false;
};

void AddOptions(CLI::App& app, Wishes& wishes) {
  app.add_option("FILE", wishes.files,
                 "A service file; its includes and entry files are checked with it");
  app.add_option("-m,--match", wishes.matches,
                 "Match data of the load, KEY=VALUE; may be given several times")
      ->allow_extra_args(false)
      ->check([](const std::string& pair) {
        return pair.find('=') == std::string::npos ? "must be KEY=VALUE" : "";
      });
  CLI::Option* const host = app.add_flag(
      "--host", wishes.isHost,
      "Checks the files against this machine, too: binaries and their libraries, users, "
      "sizes, memory nodes, cores, cgroups, digests, share pool groups, the kernel "
      "command line");
  app.add_option("--root", wishes.root,
                 "The folder that holds the platform's files in place of this machine's")
      ->needs(host)
      ->check(CLI::ExistingDirectory);
  app.add_flag("--strict", wishes.isStrict, "Warnings count as faults");
  CLI::Option* const format =
      app.add_option("--format", wishes.format,
                     "text (default), json, or sarif for code review tools; json and sarif go to "
                     "standard output whole")
          ->check(CLI::IsMember({"text", "json", "sarif"}));
  app.add_option("--graph", wishes.graph,
                 "Prints the start order as a graph in place of the rounds: dot, for Graphviz, or "
                 "svg, a picture of one FILE")
      ->check(CLI::IsMember({"dot", "svg"}))
      ->excludes(format);
  app.add_flag("--schema", wishes.isSchema,
               "Prints the JSON schema of service files, for editors, and checks nothing");
}

std::map<std::string, std::string> MatchData(const std::vector<std::string>& matches) {
  std::map<std::string, std::string> data;
  for (const std::string& pair : matches) {
    const std::size_t equals = pair.find('=');
    data.emplace(pair.substr(0, equals), pair.substr(equals + 1));
  }
  return data;
}

// Resolved; "/" is this machine.
std::string RootFolder(const std::string& path) {
  const std::string resolved = std::filesystem::canonical(path).string();
  return resolved == "/" ? "" : resolved;
}

// `host` is null if no host counts.
CheckedFile CheckFile(const std::string& path, const std::map<std::string, std::string>& matchData,
                      Host* host) {
  CheckedFile checked;
  checked.files = ProcMgr::Check::LoadPlatform(path, host == nullptr ? "" : host->Root(), matchData,
                                               checked.findings);
  const ServiceFile& first = checked.files.first;
  checked.order = ProcMgr::Check::FindStartOrder(first.load.applications);
  std::vector<const ServiceFile*> entries;
  if (first.isEntry) {
    entries.push_back(&first);
  } else {
    ProcMgr::Check::CheckBaseServices(first, checked.order, checked.findings);
  }
  for (const ServiceFile& entry : checked.files.entries) {
    entries.push_back(&entry);
  }
  ProcMgr::Check::CheckEntryFiles(entries, checked.findings);
  if (host != nullptr) {
    if (!first.isEntry) {
      host->CheckBoot(first, checked.findings);
    }
    host->CheckServices(first, checked.findings);
    for (const ServiceFile& entry : checked.files.entries) {
      host->CheckServices(entry, checked.findings);
    }
  }
  ProcMgr::Check::SortFindings(checked.findings);
  return checked;
}

void PrintGraphs(const std::vector<CheckedFile>& files, const std::string& format) {
  for (const CheckedFile& file : files) {
    ProcMgr::Check::PrintFindings(file);
    std::printf("%s",
                (format == "svg" ? ProcMgr::Check::SvgGraph(file) : ProcMgr::Check::DotGraph(file))
                    .c_str());
  }
}

bool IsGood(const CheckedFile& file, bool isStrict) {
  return std::all_of(file.findings.begin(), file.findings.end(),
                     [isStrict](const Finding& finding) {
                       return finding.severity == Severity::kWarning && !isStrict;
                     });
}

int Check(const Wishes& wishes) {
  const std::map<std::string, std::string> matchData = MatchData(wishes.matches);
  std::optional<Host> host;
  if (wishes.isHost) {
    host.emplace(wishes.root.empty() ? "" : RootFolder(wishes.root));
  }
  std::vector<CheckedFile> checked;
  bool areGood = true;
  for (const std::string& path : wishes.files) {
    checked.push_back(CheckFile(path, matchData, host ? &*host : nullptr));
    areGood = IsGood(checked.back(), wishes.isStrict) && areGood;
  }
  if (!wishes.graph.empty()) {
    PrintGraphs(checked, wishes.graph);
  } else if (wishes.format == "json") {
    PrintJson(checked);
  } else if (wishes.format == "sarif") {
    PrintSarif(checked);
  } else {
    std::for_each(checked.begin(), checked.end(), &ProcMgr::Check::PrintText);
  }
  return areGood ? kGood : kFaulty;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CLI::App app(
        "Checks service files as the process manager reads them, and tells what will happen with "
        "them: findings go to standard error, the start order to standard output.\n"
        "Exit status: 0 no errors (with --strict: no findings at all), 1 there are some, 2 wrong "
        "usage.",
        "pmcheck");
    Wishes wishes;
    app.set_version_flag("--version", "pmcheck " PM_VERSION);
    AddOptions(app, wishes);
    try {
      app.parse(argc, argv);
      if (wishes.files.empty() && !wishes.isSchema) {
        throw CLI::RequiredError("FILE");
      }
      if (wishes.graph == "svg" && wishes.files.size() > 1) {
        throw CLI::ValidationError("--graph svg", "draws one FILE");
      }
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kGood : kUsage;
    }
    if (wishes.isSchema) {
      std::printf("%s", ProcMgr::Check::ServiceFileSchema().c_str());
      return kGood;
    }
    return Check(wishes);
  } catch (const std::exception& failure) {
    (void)std::fprintf(stderr, "pmcheck: %s\n", failure.what());
    return kUsage;
  }
}
