#include "tools/check/service_files.h"

#include <algorithm>
#include <set>

#include "base/file_state.h"
#include "base/printable.h"

namespace ProcMgr::Check {
namespace {

void TakeFaults(const Manifest::CheckedLoad& load, std::vector<Finding>& findings) {
  for (const Manifest::LoadFault& fault : load.faults) {
    findings.push_back({fault.isError ? Severity::kError : Severity::kWarning,
                        fault.isError ? "faulty-file" : "doubtful-file", fault.file, fault.place,
                        fault.text});
  }
}

// Patterns make sense in an entry file only; reports and entry files of their own in another only.
bool LooksLikeEntryFile(const std::vector<ApplicationManifest>& applications) {
  return std::any_of(applications.begin(), applications.end(),
                     [](const ApplicationManifest& app) { return app.GetIsDynamicPara(); }) &&
         std::none_of(applications.begin(), applications.end(), [](const auto& app) {
           return app.GetIsReporting() || !app.GetStartupEntryPath().empty();
         });
}

}  // namespace

std::string Service::ShownName() const {
  return Quoted(manifest_.GetAppName());
}

Finding Service::At(const std::string& key, Severity severity, std::string_view rule,
                    std::string text) const {
  const auto value = places_.ofKey.find(key);
  return {severity,        std::string(rule),
          places_.file,    value == places_.ofKey.end() ? places_.application : value->second.value,
          std::move(text), manifest_.GetAppName()};
}

Finding Service::AtElement(const std::string& key, std::string_view element, Severity severity,
                           std::string_view rule, std::string text) const {
  Finding finding = At(key, severity, rule, std::move(text));
  if (const auto value = places_.ofKey.find(key); value != places_.ofKey.end()) {
    const auto& elements = value->second.elements;
    const auto found = std::find_if(elements.begin(), elements.end(),
                                    [element](const auto& each) { return each.first == element; });
    if (found != elements.end()) {
      finding.place = found->second;
    }
  }
  return finding;
}

std::vector<Service> ServiceFile::Services() const {
  std::vector<Service> services;
  services.reserve(load.applications.size());
  for (std::size_t i = 0; i < load.applications.size(); ++i) {
    services.emplace_back(load.applications[i], load.places[i]);
  }
  return services;
}

PlatformFiles LoadPlatform(const std::string& path, const std::string& root,
                           const std::map<std::string, std::string>& matchData,
                           std::vector<Finding>& findings) {
  PlatformFiles files;
  files.first = {path, Manifest::LoadForCheck(path, matchData, root), false, {}};
  files.first.isEntry = LooksLikeEntryFile(files.first.load.applications);
  TakeFaults(files.first.load, findings);
  std::set<std::string> known;
  for (const Service& owner : files.first.Services()) {
    const std::string entryPath = owner.Manifest().GetStartupEntryPath();
    if (entryPath.empty() || !known.insert(entryPath).second) {
      continue;
    }
    const auto state = StateOfFile(entryPath.c_str());
    if (!state || !state->IsRegular()) {
      findings.push_back(owner.At("startupEntryPath", Severity::kWarning, "entry-file",
                                  "the entry file " + Quoted(entryPath) +
                                      (state ? " is no regular file" : " isn't there") +
                                      "; nothing can be started through " + owner.ShownName()));
      continue;
    }
    files.entries.push_back({entryPath, Manifest::LoadForCheck(entryPath, matchData, root), true,
                             owner.Manifest().GetAppName()});
    TakeFaults(files.entries.back().load, findings);
  }
  return files;
}

}  // namespace ProcMgr::Check
