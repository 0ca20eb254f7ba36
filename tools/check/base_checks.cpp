#include <algorithm>
#include <map>
#include <string>
#include <string_view>

#include "app/start_rules.h"
#include "base/channel_name.h"
#include "base/printable.h"
#include "tools/check/checks.h"

namespace ProcMgr::Check {
namespace {

constexpr std::size_t kShownMembers = 32;

using Findings = std::vector<Finding>;
using ServicesByName = std::map<std::string_view, const Service*>;

std::string CircleText(const std::vector<std::string>& circle) {
  std::string text;
  for (std::size_t i = 0; i < std::min(circle.size(), kShownMembers); ++i) {
    text += Printable(circle[i]) + " -> ";
  }
  if (circle.size() > kShownMembers) {
    text += "(" + std::to_string(circle.size() - kShownMembers) + " more) -> ";
  }
  return text + Printable(circle.front());
}

void CheckCircles(const ServicesByName& services, const StartOrder& order, Findings& findings) {
  for (const std::vector<std::string>& circle : order.circles) {
    const std::string& next = circle[1 % circle.size()];
    findings.push_back(services.at(circle.front())
                           ->AtElement("dependList", next, Severity::kError, "circle",
                                       CircleText(circle) +
                                           ": none of them is ever started; take one of the "
                                           "dependencies out"));
  }
  if (order.circles.size() == kMaxCircles) {
    findings.push_back({Severity::kError, "circle", {}, {}, "more circles may follow these"});
  }
}

void CheckDependencies(const Service& service, const ServicesByName& services,
                       const Manifest::CheckedLoad& load,
                       const std::vector<std::string_view>& names, const StartOrder& order,
                       Findings& findings) {
  for (const std::string& dependency : service.Manifest().GetDependList()) {
    const auto found = services.find(dependency);
    if (found == services.end()) {
      // A service with faults of its own is there once they are corrected.
      if (load.areNamesKnown && !load.names.contains(dependency)) {
        findings.push_back(service.AtElement(
            "dependList", dependency, Severity::kError, "unmet-dependency",
            service.ShownName() + " depends on " + Quoted(dependency) +
                ", which isn't there, so it is never started" + NearHint(dependency, names)));
      }
    } else if (!found->second->Manifest().GetIsReporting() &&
               !order.never.contains(service.Manifest().GetAppName())) {
      findings.push_back(service.AtElement(
          "dependList", dependency, Severity::kWarning, "dependency-without-report",
          service.ShownName() + " depends on " + Quoted(dependency) +
              ", which doesn't report: the boot doesn't wait for it to run, and refuses " +
              service.ShownName() +
              " mostly; let it report (isReporting: true), or take the "
              "dependency out"));
    }
  }
}

// Under pm-notify the command line can give the name.
bool IsNamedByArgument(const ApplicationManifest& manifest) {
  const std::vector<std::string>& arguments = manifest.GetArguments();
  return manifest.GetBinPath().ends_with("/pm-notify") &&
         std::any_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
           return argument == "--name" || argument.starts_with("--name=");
         });
}

// The manager reaches a reporting service by its appName; the service serves its PROC_NAME.
void CheckReporting(const Service& service, Findings& findings) {
  const ApplicationManifest& manifest = service.Manifest();
  if (!manifest.GetIsReporting()) {
    return;
  }
  if (!IsChannelName(manifest.GetAppName())) {
    findings.push_back(service.At(
        "appName", Severity::kError, "channel-name",
        service.ShownName() + " reports, but can't be reached: the name of a reporting service is "
                              "1 to 64 of A-Z a-z 0-9 . _ - without a dot in front"));
    return;
  }
  if (IsNamedByArgument(manifest)) {
    return;
  }
  const auto own = manifest.GetEnvArgv().find("PROC_NAME");
  if (own == manifest.GetEnvArgv().end()) {
    findings.push_back(
        service.At("envArgv", Severity::kWarning, "proc-name",
                   service.ShownName() +
                       " reports, but isn't told its name: it inherits PROC_NAME=PROCMGR; "
                       "add envArgv: {PROC_NAME: " +
                       Printable(manifest.GetAppName()) + "}"));
  } else if (own->second != manifest.GetAppName()) {
    findings.push_back(service.AtElement(
        "envArgv", "PROC_NAME", Severity::kWarning, "proc-name",
        "PROC_NAME is " + Quoted(own->second) + ", but the boot waits for a report of " +
            service.ShownName() + "; PROC_NAME must be the appName"));
  }
}

void CheckPattern(const Service& service, const std::string& key, const std::string& text,
                  Findings& findings) {
  if (ParseAndDepend::Instance().IsDynamicPara(text)) {
    findings.push_back(service.At(key, Severity::kError, "pattern-in-base",
                                  key + " is a pattern, which only a request fills; a base "
                                        "service is started as it stands here"));
  }
}

void CheckUnread(const Service& service, Findings& findings) {
  for (const char* const key :
       {"startupPriority", "sharepoolGroups", "nice", "vfId", "heartBeatSwitch"}) {
    if (service.HasKey(key)) {
      findings.push_back(service.At(
          key, Severity::kWarning, "unread-key",
          std::string(key) + " isn't read of a base service; it counts in a start-up entry file"));
    }
  }
}

}  // namespace

void CheckArguments(const Service& service, Findings& findings) {
  for (const std::string& argument : service.Manifest().GetArguments()) {
    if (const auto token = App::FindShellToken(argument)) {
      findings.push_back(
          service.AtElement("arguments", argument, Severity::kError, "shell-token",
                            "the argument " + Quoted(argument) + " holds " + Quoted(*token) +
                                ", so every start of " + service.ShownName() +
                                " is refused; no shell reads it, so put such work in a script"));
    }
  }
}

void CheckBaseServices(const ServiceFile& file, const StartOrder& order, Findings& findings) {
  const std::vector<Service> services = file.Services();
  ServicesByName byName;
  for (const Service& service : services) {
    byName.emplace(service.Manifest().GetAppName(), &service);
  }
  const std::vector<std::string_view> names(file.load.names.begin(), file.load.names.end());
  for (const Service& service : services) {
    CheckDependencies(service, byName, file.load, names, order, findings);
    CheckReporting(service, findings);
    CheckPattern(service, "appName", service.Manifest().GetAppName(), findings);
    CheckPattern(service, "binPath", service.Manifest().GetBinPath(), findings);
    CheckArguments(service, findings);
    CheckUnread(service, findings);
  }
  CheckCircles(byName, order, findings);
}

}  // namespace ProcMgr::Check
