// pmcheck: tells what will happen with service files, without starting anything.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/check/checks.h"
#include "tools/check/report.h"

namespace {

using ProcMgr::Check::CheckedFile;
using ProcMgr::Check::Finding;
using ProcMgr::Check::ServiceFile;
using ProcMgr::Check::Severity;

constexpr int kGood = 0;
constexpr int kFaulty = 1;
constexpr int kUsage = 2;

struct Wishes {
  std::vector<std::string> files;
  std::vector<std::string> matches;
  std::string format = "text";
  bool isStrict = false;
};

void AddOptions(CLI::App& app, Wishes& wishes) {
  app.add_option("FILE", wishes.files,
                 "A service file; its includes and entry files are checked with it")
      ->required();
  app.add_option("-m,--match", wishes.matches,
                 "Match data of the load, KEY=VALUE; may be given several times")
      ->allow_extra_args(false)
      ->check([](const std::string& pair) {
        return pair.find('=') == std::string::npos ? "must be KEY=VALUE" : "";
      });
  app.add_flag("--strict", wishes.isStrict, "Warnings count as faults");
  app.add_option("--format", wishes.format,
                 "text (default), json, or sarif for code review tools; json and sarif go to "
                 "standard output whole")
      ->check(CLI::IsMember({"text", "json", "sarif"}));
}

std::map<std::string, std::string> MatchData(const std::vector<std::string>& matches) {
  std::map<std::string, std::string> data;
  for (const std::string& pair : matches) {
    const std::size_t equals = pair.find('=');
    data.emplace(pair.substr(0, equals), pair.substr(equals + 1));
  }
  return data;
}

CheckedFile CheckFile(const std::string& path,
                      const std::map<std::string, std::string>& matchData) {
  CheckedFile checked;
  checked.files = ProcMgr::Check::LoadPlatform(path, {}, matchData, checked.findings);
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
  ProcMgr::Check::SortFindings(checked.findings);
  return checked;
}

bool IsGood(const CheckedFile& file, bool isStrict) {
  return std::all_of(file.findings.begin(), file.findings.end(),
                     [isStrict](const Finding& finding) {
                       return finding.severity == Severity::kWarning && !isStrict;
                     });
}

int Check(const Wishes& wishes) {
  const std::map<std::string, std::string> matchData = MatchData(wishes.matches);
  std::vector<CheckedFile> checked;
  bool areGood = true;
  for (const std::string& path : wishes.files) {
    checked.push_back(CheckFile(path, matchData));
    areGood = IsGood(checked.back(), wishes.isStrict) && areGood;
  }
  if (wishes.format == "json") {
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
    AddOptions(app, wishes);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kGood : kUsage;
    }
    return Check(wishes);
  } catch (const std::exception& failure) {
    (void)std::fprintf(stderr, "pmcheck: %s\n", failure.what());
    return kUsage;
  }
}
