#include "tools/check/host.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "app/app_info.h"
#include "app/mem_policy.h"
#include "app/share_groups.h"
#include "app/start_rules.h"
#include "base/printable.h"
#include "base/root_path.h"
#include "base/small_file.h"
#include "core/log.h"
#include "host/cgroups.h"
#include "host/kernel_cmdline.h"
#include "platform/plat/plat.h"
#include "status/proc_facts.h"

namespace ProcMgr::Check {
namespace {

using Findings = std::vector<Finding>;

// Each argument and each variable with the zero at its end: 32 pages of 4 KiB.
constexpr std::size_t kLongestText = std::size_t{128} * 1024;
// All of them: a quarter of the stack.
constexpr std::size_t kMostTexts = std::size_t{2} * 1024 * 1024;

constexpr const char* kOnlineNodesFile = "/sys/devices/system/node/online";

std::vector<std::string>* complaints = nullptr;

// The log calls it under its lock.
void KeepComplaint(int level, const char* text) {
  if (complaints != nullptr && level <= LOG_ERR) {
    complaints->emplace_back(text);
  }
}

bool IsPattern(const std::string& text) {
  return ParseAndDepend::Instance().IsDynamicPara(text);
}

CpusetPaths CpusetsBelow(const std::string& root) {
  CpusetPaths paths;
  paths.ctrlCpus.insert(0, root);
  paths.aiCpus.insert(0, root);
  paths.aiTasks.insert(0, root);
  return paths;
}

CgroupRoots CgroupsBelow(const std::string& root) {
  CgroupRoots roots;
  roots.cpu.insert(0, root);
  roots.memory.insert(0, root);
  roots.cpuset.insert(0, root);
  return roots;
}

std::string MachinePath(const std::string& root, const std::string& path) {
  return ResolveInRoot(root, path).value_or(root + path);
}

// The kernel lists them as it lists cores. None if the list can't be read.
PlatMemInfo OnlineNodes(const std::string& root) {
  std::string text;
  (void)ReadSmallFile(MachinePath(root, kOnlineNodesFile), kConfigFileLimit, text);
  const auto nodes = Status::ParseCoreList(std::string_view(text).substr(0, text.find('\n')));
  PlatMemInfo info{};
  if (nodes) {
    info.nodeCount = static_cast<std::uint32_t>(nodes->size());
    std::copy_n(nodes->begin(), std::min(nodes->size(), info.nodes.size()), info.nodes.begin());
  }
  return info;
}

std::string NotExecutable(App::ExecuteVerdict verdict, const struct stat& file) {
  switch (verdict) {
    case App::ExecuteVerdict::kOk:
      break;
    case App::ExecuteVerdict::kNobodyMay:
      return "it has no execute bit";
    case App::ExecuteVerdict::kOwnerMayNot:
      return "the user owns it, and the owner has no execute bit";
    case App::ExecuteVerdict::kNotInGroup:
      return "the user neither owns it nor is in its group " + std::to_string(file.st_gid) +
             " (the bit for others counts for root only)";
    case App::ExecuteVerdict::kGroupMayNot:
      return "its group " + std::to_string(file.st_gid) + " has no execute bit";
  }
  return {};
}

// What the kernel takes of the texts that a program gets, whatever the file says.
void CheckSizes(const Service& service, Findings& findings) {
  const ApplicationManifest& manifest = service.Manifest();
  std::size_t whole = manifest.GetBinPath().size() + 1;
  const auto add = [&](const char* key, const std::string& element, std::size_t size) {
    whole += size + sizeof(char*);
    if (size > kLongestText) {
      findings.push_back(service.AtElement(
          key, element, Severity::kError, "size",
          "a text of " + std::to_string(size) + " bytes is more than the kernel takes (" +
              std::to_string(kLongestText) + "), so every start fails"));
    }
  };
  for (const std::string& argument : manifest.GetArguments()) {
    add("arguments", argument, argument.size() + 1);
  }
  for (const auto& [name, value] : manifest.GetEnvArgv()) {
    add("envArgv", name, name.size() + 1 + value.size() + 1);
  }
  if (whole > kMostTexts) {
    findings.push_back(service.At(
        "arguments", Severity::kWarning, "size",
        "arguments and environment are " + std::to_string(whole) + " bytes; with the usual limit " +
            "of the stack (8 MiB) the kernel takes " + std::to_string(kMostTexts)));
  }
}

}  // namespace

Host::Host(std::string root)
    : root_(std::move(root)),
      rootFolder_(open((root_ + '/').c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
      users_(root_),
      cores_(CpusetsBelow(root_)),
      libraries_(root_) {
  complaints = &cmdlineComplaints_;
  SetLogSink(&KeepComplaint);
  const std::string cmdline = root_ + kKernelCmdlineFile;
  ParseKernelCmdline(context_, cmdline, root_ + kConfigDir);
  ParseRebootReason(context_, cmdline, root_ + kConfigDir);
  complaints = nullptr;
  cores_.LoadCpuInfo();
  digests_.LoadHashCfg(MachinePath(root_, kBinHashFile));
  shareGroups_.LoadSharepoolCfg(MachinePath(root_, kSharepoolDir));
  shareGroups_.FinishSharepoolCfg();
  if (const auto shell = ResolveInRoot(root_, "/bin/sh")) {
    const std::optional<Executable> executable = ReadExecutable(*shell);
    if (executable && executable->kind == Executable::Kind::kElf) {
      machine_ = executable->machine;
    }
  }
}

void Host::CheckBoot(const ServiceFile& file, Findings& findings) {
  for (const std::string& complaint : cmdlineComplaints_) {
    findings.push_back({Severity::kWarning, "kernel-cmdline", {}, {}, Printable(complaint, 4096)});
  }
  if (!context_.startupYaml_.empty() &&
      context_.startupYaml_ != ResolveInRoot({}, file.path).value_or(file.path)) {
    findings.push_back({Severity::kWarning,
                        "kernel-cmdline",
                        file.path,
                        {},
                        "the kernel command line boots " + Quoted(context_.startupYaml_) +
                            " in place of this file"});
  }
  for (const Service& service : file.Services()) {
    if (!IsOptionalServiceAllowed(context_, service.Manifest().GetCfgPath())) {
      findings.push_back(service.At("appName", Severity::kWarning, "kernel-cmdline",
                                    service.ShownName() +
                                        " is left out: the kernel command line doesn't ask for "
                                        "this optional service"));
    }
  }
}

void Host::CheckServices(const ServiceFile& file, Findings& findings) {
  for (const Service& service : file.Services()) {
    CheckUser(service, findings);
    if (!IsPattern(service.Manifest().GetBinPath())) {
      CheckBinary(service, file.isEntry, findings);
    }
    CheckSizes(service, findings);
    CheckCores(service, file.isEntry, findings);
    CheckCgroups(service, findings);
    if (file.isEntry) {
      CheckNodes(service, findings);
      CheckShareGroups(service, file.owner, findings);
    }
  }
}

void Host::CheckUser(const Service& service, Findings& findings) {
  const uid_t uid = service.Manifest().GetUid();
  switch (users_.Judge(uid)) {
    case UserVerdict::kOk:
      return;
    case UserVerdict::kUnknown:
      findings.push_back(service.At("uid", Severity::kError, "user",
                                    "the user database doesn't know the user " +
                                        std::to_string(uid) + ", so no start gets its groups"));
      return;
    case UserVerdict::kTooManyGroups:
      findings.push_back(service.At(
          "uid", Severity::kError, "user",
          "the user " + std::to_string(uid) + " is in more than 128 groups, so every start fails"));
  }
}

void Host::CheckBinary(const Service& service, bool isEntry, Findings& findings) {
  const std::string& binPath = service.Manifest().GetBinPath();
  const auto add = [&](const std::string& why) {
    findings.push_back(service.At("binPath", Severity::kError, "binary",
                                  Quoted(binPath) + " can't be started: " + why));
  };
  const std::optional<std::string> path = ResolveInRoot(root_, binPath);
  struct stat file {};
  if (!path || stat(path->c_str(), &file) != 0) {
    add("it isn't there");
    return;
  }
  if (!S_ISREG(file.st_mode)) {
    add("it is no regular file");
    return;
  }
  const auto verdict =
      App::JudgeExecute(service.Manifest().GetUid(), file,
                        [this](uid_t uid, gid_t gid) { return users_.IsInGroup(uid, gid); });
  // A user that can't be read is told as such.
  const bool isToldByUser = verdict == App::ExecuteVerdict::kNotInGroup &&
                            users_.Judge(service.Manifest().GetUid()) != UserVerdict::kOk;
  if (verdict != App::ExecuteVerdict::kOk && !isToldByUser) {
    add(NotExecutable(verdict, file));
  }
  // Whoever checks may be allowed to read less than the daemon.
  if (const std::optional<Executable> executable = ReadExecutable(*path)) {
    if (CheckContent(service, *executable, findings)) {
      const bool isScript = executable->kind == Executable::Kind::kScript;
      CheckLibraries(service, isScript ? executable->interpreter : binPath, isEntry, findings);
    }
    CheckDigest(service, findings);
  }
}

bool Host::CheckContent(const Service& service, const Executable& executable, Findings& findings) {
  const auto add = [&](const std::string& why) {
    findings.push_back(
        service.At("binPath", Severity::kError, "binary",
                   Quoted(service.Manifest().GetBinPath()) + " can't be started: " + why));
  };
  if (executable.kind == Executable::Kind::kOther) {
    add("it is neither an ELF program nor a script that begins with \"#!\"");
    return false;
  }
  if (executable.kind == Executable::Kind::kElf && machine_ && executable.machine != *machine_) {
    add("it is made for " + MachineName(executable.machine) + ", and /bin/sh for " +
        MachineName(*machine_));
    return false;
  }
  const bool needsOne = executable.kind == Executable::Kind::kScript;
  if ((needsOne || !executable.interpreter.empty()) &&
      !ResolveInRoot(root_, executable.interpreter)) {
    add("its interpreter " + Quoted(executable.interpreter) + " isn't there");
    return false;
  }
  return true;
}

// Its environment is that of whoever checks and, over it, that of the service file; the manager's
// own is passed on likewise.
void Host::CheckLibraries(const Service& service, const std::string& program, bool isEntry,
                          Findings& findings) {
  static constexpr const char* kLibraryPath = "LD_LIBRARY_PATH";
  const std::map<std::string, std::string>& env = service.Manifest().GetEnvArgv();
  const auto entry = env.find(kLibraryPath);
  const char* const inherited = std::getenv(kLibraryPath);
  const std::string searched = entry != env.end()     ? entry->second
                               : inherited != nullptr ? inherited
                                                      : "";
  const std::optional<std::string> path = ResolveInRoot(root_, program);
  const std::optional<Executable> file = path ? ReadExecutable(*path) : std::nullopt;
  if (!file || IsPattern(searched)) {
    return;
  }
  for (const MissingLibrary& missing :
       libraries_.FindMissing(path->substr(root_.size()), *file, searched)) {
    findings.push_back(service.At(
        "binPath", isEntry ? Severity::kWarning : Severity::kError, "library",
        Quoted(program) + " ends at once with status 127: the shared library " +
            Quoted(missing.name) + " isn't there, which " + Quoted(missing.neededBy) + " needs"));
  }
}

// How many devices there are only the platform's library tells, on the machine itself; the nodes of
// one are all that are online.
void Host::CheckNodes(const Service& service, Findings& findings) {
  const std::string& name = service.Manifest().GetAppName();
  const std::int32_t vfId = service.Manifest().GetVfId();
  if (vfId < 0) {
    return;
  }
  const bool isHere = root_.empty();
  const auto add = [&](const std::string& text) {
    findings.push_back(
        service.At("vfId", isHere ? Severity::kError : Severity::kWarning, "numa", text));
  };
  const std::string everyStart = isHere ? "every start fails" : "with one device every start fails";
  App::MemPolicy policy;
  policy.isWanted = true;
  if (isHere) {
    policy = App::PlanMemPolicy(name, vfId);
  } else if (const PlatMemInfo nodes = OnlineNodes(root_); nodes.nodeCount > 0) {
    policy = App::PolicyOfNodes(name, nodes);
  } else {
    add("whether the memory can be bound to its nodes can't be told, for there is no list of them "
        "in " +
        Quoted(kOnlineNodesFile));
  }
  if (!policy.error.empty()) {
    add(everyStart + ": " + Printable(policy.error));
  }
  if (policy.isWanted && !libraries_.IsInCommonFolder("libnuma.so.1")) {
    add(everyStart +
        ": libnuma.so.1 isn't there, by which the memory of a device function is bound");
  }
}

// The digest's rule looks at the path, too, so it gets the platform's one behind a harmless name of
// the root. The file's name is what the list has, so a link of another name stays one.
void Host::CheckDigest(const Service& service, Findings& findings) {
  if (!digests_.HasEntries()) {
    return;
  }
  const std::string& binPath = service.Manifest().GetBinPath();
  std::string path = binPath;
  if (!root_.empty()) {
    const std::string resolved = MachinePath(root_, binPath).substr(root_.size());
    const bool isSameName = resolved.ends_with(binPath.substr(binPath.rfind('/')));
    path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(rootFolder_.Get()) +
           (isSameName ? resolved : binPath);
  }
  if (!digests_.Check(path)) {
    findings.push_back(service.At("binPath", Severity::kError, "digest",
                                  Quoted(binPath) +
                                      " hasn't the digest that bin_hash.cfg lists, so every start "
                                      "is refused; correct the list or the binary"));
  }
}

void Host::CheckCores(const Service& service, bool isEntry, Findings& findings) {
  const std::vector<std::uint32_t>& cores = service.Manifest().GetCoreAffinity();
  if (cores.empty() || (isEntry && cores.front() == App::kAllReservedCores)) {
    return;
  }
  const std::vector<std::uint32_t>& allowed = cores_.CtrlCpus();
  const auto stranger = std::find_if(cores.begin(), cores.end(), [&allowed](std::uint32_t core) {
    return std::find(allowed.begin(), allowed.end(), core) == allowed.end();
  });
  if (stranger != cores.end()) {
    findings.push_back(service.At(
        "coreAffinity", Severity::kError, "cores",
        allowed.empty() ? "the cpuset CtrlCPU can't be read, so every start that names cores is "
                          "refused"
                        : "core " + std::to_string(*stranger) +
                              " isn't in the cpuset CtrlCPU, so every start is refused"));
    return;
  }
  CheckAiCores(service, findings);
}

// The child has become its user by the time that it would enter the group.
void Host::CheckAiCores(const Service& service, Findings& findings) const {
  const std::vector<std::uint32_t>& cores = service.Manifest().GetCoreAffinity();
  const std::vector<std::uint32_t>& reserved = cores_.AiCpus();
  const auto core =
      std::find_first_of(cores.begin(), cores.end(), reserved.begin(), reserved.end());
  if (core != cores.end() && service.Manifest().GetUid() != 0) {
    findings.push_back(
        service.At("coreAffinity", Severity::kWarning, "ai-cores",
                   "core " + std::to_string(*core) +
                       " is one of the cpuset AICPU, whose tasks only root may join, so " +
                       service.ShownName() + " runs on it outside of that cpuset"));
  }
}

void Host::CheckCgroups(const Service& service, Findings& findings) {
  const ApplicationManifest& manifest = service.Manifest();
  const CgroupTasks tasks =
      FindCgroupTasks(manifest.GetResGroupName(), manifest.GetCpuset(), CgroupsBelow(root_));
  const std::array<std::pair<const char*, const std::string*>, 3> each = {
      {{"resGroupName", &tasks.cpu}, {"resGroupName", &tasks.memory}, {"cpuset", &tasks.cpuset}}};
  for (const auto& [key, path] : each) {
    if (!path->empty() && access(path->c_str(), F_OK) != 0) {
      findings.push_back(service.At(key, Severity::kWarning, "cgroup",
                                    Quoted(path->substr(root_.size())) + " isn't there, so " +
                                        service.ShownName() + " runs outside of its group"));
    }
  }
}

void Host::CheckShareGroups(const Service& service, const std::string& owner, Findings& findings) {
  const std::string& name = service.Manifest().GetAppName();
  if (!App::HasShareGroups(name, owner)) {
    return;
  }
  for (const SharepoolGroupsInfo& group : service.Manifest().GetSharepoolGroups()) {
    std::string err;
    if (!shareGroups_.CheckSharepoolGroupCfg(group, err)) {
      findings.push_back(service.At("sharepoolGroups", Severity::kWarning, "share-group",
                                    service.ShownName() + " doesn't get the group " +
                                        Quoted(group.groupName) +
                                        ": the platform has no such "
                                        "group, or the permission " +
                                        Quoted(group.permission) + " isn't one"));
    }
  }
}

}  // namespace ProcMgr::Check
