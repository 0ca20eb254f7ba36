#include <algorithm>
#include <map>
#include <string>

#include "base/printable.h"
#include "platform/manifest/place.h"
#include "tools/check/checks.h"

namespace ProcMgr::Check {
namespace {

using Findings = std::vector<Finding>;

bool IsPattern(const std::string& text) {
  return ParseAndDepend::Instance().IsDynamicPara(text);
}

// True if every request brings the arguments.
bool AreArgumentsOfRequests(const ApplicationManifest& manifest) {
  const auto& arguments = manifest.GetArguments();
  return manifest.GetIsDynamicPara() && std::any_of(arguments.begin(), arguments.end(), &IsPattern);
}

// A priority application is started as it stands in the file, before anybody could ask for it.
void CheckPriority(const Service& service, Findings& findings) {
  const ApplicationManifest& manifest = service.Manifest();
  if (manifest.GetStartupPriority() == -1) {
    return;
  }
  const auto add = [&](const std::string& why) {
    findings.push_back(service.At("startupPriority", Severity::kWarning, "priority",
                                  service.ShownName() + " isn't started by its priority: " + why));
  };
  if (IsPattern(manifest.GetAppName())) {
    add("its name is a pattern, which only a request fills");
  } else if (IsPattern(manifest.GetBinPath()) || AreArgumentsOfRequests(manifest)) {
    add("its binPath or an argument is a pattern, which only a request fills");
  } else if (service.HasKey("match")) {
    add("it has a match, and the boot loads this file without match data");
  }
}

void CheckTwice(const Service& service, std::map<std::string, std::string>& placeOfName,
                Findings& findings) {
  Finding finding = service.At("appName", Severity::kWarning, "entry-twice", {});
  const std::string place = Printable(finding.file, kShownPathBytes) + ':' +
                            std::to_string(finding.place.line) + ':' +
                            std::to_string(finding.place.column);
  const auto [first, isNew] = placeOfName.emplace(service.Manifest().GetAppName(), place);
  if (!isNew) {
    finding.text = "the application " + service.ShownName() + " also stands at " + first->second +
                   ", and the file that is loaded last counts; describe it once";
    findings.push_back(std::move(finding));
  }
}

}  // namespace

void CheckEntryFiles(const std::vector<const ServiceFile*>& files, Findings& findings) {
  std::map<std::string, std::string> placeOfName;
  for (const ServiceFile* const file : files) {
    for (const Service& service : file->Services()) {
      CheckTwice(service, placeOfName, findings);
      CheckPriority(service, findings);
      if (!AreArgumentsOfRequests(service.Manifest())) {
        CheckArguments(service, findings);
      }
      if (!service.Manifest().GetDependList().empty()) {
        findings.push_back(service.At("dependList", Severity::kWarning, "unread-key",
                                      "dependList isn't read in a start-up entry file; whoever "
                                      "asks for an application decides on the order"));
      }
    }
  }
}

}  // namespace ProcMgr::Check
