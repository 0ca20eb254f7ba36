#include "tools/check/report.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/printable.h"

namespace ProcMgr::Check {
namespace {

using Json = nlohmann::ordered_json;

const char* WordOf(Severity severity) {
  return severity == Severity::kError ? "error" : "warning";
}

void PrintFinding(const Finding& finding) {
  if (finding.file.empty()) {
    (void)std::fprintf(stderr, "%s: %s\n", WordOf(finding.severity), finding.text.c_str());
    return;
  }
  (void)std::fprintf(stderr, "%s:%d:%d: %s: %s\n", Printable(finding.file, kShownPathBytes).c_str(),
                     finding.place.line, finding.place.column, WordOf(finding.severity),
                     finding.text.c_str());
}

void PrintNames(const std::string& label, const std::set<std::string>& names) {
  std::printf("%s:", label.c_str());
  for (const std::string& name : names) {
    std::printf(" %s", Printable(name, name.size()).c_str());
  }
  std::printf("\n");
}

void PrintUnmet(const Manifest::CheckedLoad& load) {
  for (const ApplicationManifest& manifest : load.applications) {
    for (const std::string& dependency : manifest.GetDependList()) {
      if (!load.names.contains(dependency)) {
        std::printf("unmet: %s depends on %s, which isn't there\n",
                    Printable(manifest.GetAppName()).c_str(), Printable(dependency).c_str());
      }
    }
  }
}

// JSON is UTF-8; names may be any bytes.
Json NamesOf(const std::set<std::string>& names) {
  Json list = Json::array();
  for (const std::string& name : names) {
    list.push_back(Printable(name, name.size()));
  }
  return list;
}

Json FindingOf(const Finding& finding) {
  Json out = {{"severity", WordOf(finding.severity)}, {"rule", finding.rule}};
  if (!finding.file.empty()) {
    out["file"] = Printable(finding.file, kShownPathBytes);
    out["line"] = finding.place.line;
    out["column"] = finding.place.column;
  }
  if (!finding.service.empty()) {
    out["service"] = Printable(finding.service, finding.service.size());
  }
  out["message"] = finding.text;
  return out;
}

Json SarifResult(const Finding& finding) {
  Json result = {{"ruleId", finding.rule},
                 {"level", WordOf(finding.severity)},
                 {"message", {{"text", finding.text}}}};
  if (!finding.file.empty()) {
    const Json region = {{"startLine", finding.place.line}, {"startColumn", finding.place.column}};
    const Json physical = {
        {"artifactLocation", {{"uri", Printable(finding.file, kShownPathBytes)}}},
        {"region", region}};
    result["locations"] = Json::array({Json{{"physicalLocation", physical}}});
  }
  return result;
}

}  // namespace

void PrintFindings(const CheckedFile& file) {
  std::for_each(file.findings.begin(), file.findings.end(), &PrintFinding);
}

void PrintText(const CheckedFile& file) {
  PrintFindings(file);
  const ServiceFile& first = file.files.first;
  if (first.load.hasErrors) {
    std::printf("%s: faulty\n", first.path.c_str());
    return;
  }
  const std::size_t count = first.load.applications.size();
  std::printf("%s: %zu application%s\n", first.path.c_str(), count, count == 1 ? "" : "s");
  int number = 0;
  for (const std::set<std::string>& round : file.order.rounds) {
    PrintNames("round " + std::to_string(++number), round);
  }
  if (!file.order.never.empty()) {
    PrintNames("never", file.order.never);
  }
  PrintUnmet(first.load);
}

void PrintJson(const std::vector<CheckedFile>& files) {
  Json list = Json::array();
  for (const CheckedFile& file : files) {
    Json rounds = Json::array();
    for (const std::set<std::string>& round : file.order.rounds) {
      rounds.push_back(NamesOf(round));
    }
    Json findings = Json::array();
    for (const Finding& finding : file.findings) {
      findings.push_back(FindingOf(finding));
    }
    list.push_back({{"file", Printable(file.files.first.path, kShownPathBytes)},
                    {"loads", !file.files.first.load.hasErrors},
                    {"applications", file.files.first.load.applications.size()},
                    {"rounds", std::move(rounds)},
                    {"refused", NamesOf(file.order.refused)},
                    {"findings", std::move(findings)}});
  }
  std::printf("%s\n", Json{{"files", std::move(list)}}.dump(2).c_str());
}

void PrintSarif(const std::vector<CheckedFile>& files) {
  Json rules = Json::array();
  for (const Rule& rule : Rules()) {
    rules.push_back({{"id", rule.id}, {"shortDescription", {{"text", rule.description}}}});
  }
  Json results = Json::array();
  for (const CheckedFile& file : files) {
    for (const Finding& finding : file.findings) {
      results.push_back(SarifResult(finding));
    }
  }
  const Json driver = {{"name", "pmcheck"}, {"version", PM_VERSION}, {"rules", std::move(rules)}};
  const Json run = {{"tool", {{"driver", driver}}}, {"results", std::move(results)}};
  const Json document = {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
                         {"version", "2.1.0"},
                         {"runs", Json::array({run})}};
  std::printf("%s\n", document.dump(2).c_str());
}

}  // namespace ProcMgr::Check
