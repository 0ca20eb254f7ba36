#include "host/sharepool_cfg.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "base/dir_stream.h"
#include "base/standard_path.h"
#include "core/log.h"
#include "platform/plat/plat.h"

namespace ProcMgr {
namespace {

constexpr const char* kGroupsKey = "sharepool_groups";
constexpr const char* kAdminKey = "admin_pro_lists";
constexpr const char* kWhiteListKey = "add_all_groups_white_lists";
constexpr const char* kMemSizeKey = "mem_size";
constexpr const char* kAdmin = "admin";
constexpr const char* kAlloc = "alloc";
constexpr const char* kReadWrite = "rw";
constexpr const char* kReadOnly = "ro";

// Marks an attribute record of this layout for the platform.
constexpr std::uint32_t kGrpAttrMagic = 0x5a5a5b5b;

// Bits of a permission as the platform takes it.
constexpr std::uint32_t kAdminBit = 1;
constexpr std::uint32_t kReadBit = 2;
constexpr std::uint32_t kWriteBit = 4;
constexpr std::uint32_t kAllocBit = 8;

std::uint32_t PermissionValue(const SharepoolGroupsInfo& group) {
  if (group.permission == kReadOnly) {
    return kReadBit;
  }
  if (group.permission == kReadWrite) {
    return kReadBit | kWriteBit;
  }
  if (group.permission == kAlloc) {
    return kReadBit | kWriteBit | kAllocBit;
  }
  if (group.permission == kAdmin) {
    // Only in the default group may an admin allocate.
    const std::uint32_t right = kAdminBit | kReadBit | kWriteBit;
    return group.groupName == kDefaultSharepoolGroup ? right | kAllocBit : right;
  }
  return 0;
}

std::uint64_t GetSharepoolGroupMemSize(const KvsTypeYaml& node) {
  KvsTypeYaml sub;
  std::uint64_t size = 0;
  if (!node.GetSubKvs(kMemSizeKey, sub) || !sub.GetUint64(size)) {
    LogWarningRouted("GetSharepoolGroupMemSize is null !");
  }
  return size;
}

void AppendNew(const KvsTypeYaml& node, const std::string& path, const char* key, NameList& names) {
  std::vector<std::string> found;
  if (!node.GetSequenceString(found)) {
    LogWarningRouted("cfg=%s %s is no list of names", path.c_str(), key);
  }
  for (std::string& name : found) {
    names.Add(std::move(name));
  }
}

bool IsRegularFile(const std::string& path, unsigned char type) {
  if (type != DT_UNKNOWN) {
    return type == DT_REG;
  }
  // Some file systems don't tell the type in the directory.
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

void NameList::Add(std::string name) {
  if (known_.insert(name).second) {
    names_.push_back(std::move(name));
  }
}

SharepoolCfg& SharepoolCfg::Instance() {
  static SharepoolCfg cfg;
  return cfg;
}

void SharepoolCfg::InitSharepool(const std::string& directory) {
  LoadSharepoolCfg(directory);
  FinishSharepoolCfg();
  CreateSharepoolGroup();
}

void SharepoolCfg::LoadSharepoolCfg(const std::string& directory) {
  const DirStream stream(opendir(directory.c_str()));
  if (stream == nullptr) {
    LogErrorRouted("LoadSharepoolCfg failed: errno=%d", errno);
    return;
  }
  while (const dirent* const entry = readdir(stream.get())) {
    const std::string path = directory + "/" + entry->d_name;
    if (IsRegularFile(path, entry->d_type)) {
      LoadCfgFile(path);
    }
  }
}

void SharepoolCfg::LoadCfgFile(const std::string& path) {
  std::string resolved;
  if (!StandardizationPath(path, resolved)) {
    LogErrorRouted("LoadCfgFile=%s StandardizationPath failed", path.c_str());
    return;
  }
  KvsTypeYaml root;
  if (!root.InitYamlNode(resolved)) {
    LogErrorRouted("sharepool LoadCfgFile file (%s) failed, init yaml node failed",
                   resolved.c_str());
    return;
  }
  LoadSharepoolGroupCfg(root, resolved);
  LoadAdminProLists(root, resolved);
  LoadWhiteLists(root, resolved);
}

void SharepoolCfg::LoadSharepoolGroupCfg(const KvsTypeYaml& root, const std::string& path) {
  KvsTypeYaml node;
  if (!root.GetSubKvs(kGroupsKey, node)) {
    LogWarningRouted("LoadSharepoolGroupCfg not exist %s key", kGroupsKey);
    return;
  }
  std::vector<KvsTypeYaml> children;
  if (!node.GetArray(children)) {
    LogWarning("%s invalid file!", path.c_str());
  }
  for (const KvsTypeYaml& child : children) {
    const SharepoolGroupCfg group{child.GetKey(), GetSharepoolGroupMemSize(child)};
    if (group.groupName.empty()) {
      LogWarningRouted("cfg=%s has a share pool group without a name", path.c_str());
      continue;
    }
    LogInfoRouted("LoadSharepoolGroupCfg groupName=%s, memSize=%lu KB", group.groupName.c_str(),
                  group.memSize);
    // The first definition of a name stands, and its size with it.
    if (knownGroups_.insert(group.groupName).second) {
      groups_.push_back(group);
    }
  }
}

void SharepoolCfg::LoadAdminProLists(const KvsTypeYaml& root, const std::string& path) {
  KvsTypeYaml node;
  if (!root.GetSubKvs(kAdminKey, node)) {
    LogWarningRouted("cfg=%s LoadAdminProLists not exist %s key", path.c_str(), kAdminKey);
    return;
  }
  AppendNew(node, path, kAdminKey, adminProLists_);
}

void SharepoolCfg::LoadWhiteLists(const KvsTypeYaml& root, const std::string& path) {
  KvsTypeYaml node;
  if (!root.GetSubKvs(kWhiteListKey, node)) {
    LogWarningRouted("cfg=%s not exist %s key", path.c_str(), kWhiteListKey);
    return;
  }
  AppendNew(node, path, kWhiteListKey, whiteLists_);
}

void SharepoolCfg::FinishSharepoolCfg() {
  groups_.push_back({kDefaultSharepoolGroup, 0});
  knownGroups_.insert(kDefaultSharepoolGroup);
  for (const std::string& name : adminProLists_.InOrder()) {
    LogInfoRouted("sharepoolCfg app %s is admin", name.c_str());
  }
  for (const SharepoolGroupCfg& group : groups_) {
    LogInfoRouted("sharepoolCfg has %s sharepool group", group.groupName.c_str());
  }
  for (const std::string& name : whiteLists_.InOrder()) {
    LogInfoRouted("sharepoolCfg app=%s is in while lists", name.c_str());
  }
  for (const SharepoolGroupCfg& group : groups_) {
    groupNames_.push_back(group.groupName);
  }
}

void SharepoolCfg::CreateSharepoolGroup() const {
  PlatGrpAttr attr{};
  for (const SharepoolGroupCfg& group : groups_) {
    const char* const name = group.groupName.c_str();
    attr.memSize = group.memSize;
    attr.magic = kGrpAttrMagic;
    const std::int32_t result = platGrpCreate(name, &attr);
    if (result == 0) {
      LogInfoRouted("CreateSharepoolGroup group=%s success", name);
    } else if (result == kPlatGrpExists) {
      LogWarningRouted("CreateSharepoolGroup faild cur group=%s is existed", name);
    } else {
      LogErrorRouted("CreateSharepoolGroup group=%s faild, res=%d", name, result);
    }
  }
}

std::vector<SharepoolGroupsInfo> SharepoolCfg::GetAppSharepoolGroups(
    const std::string& appName, const std::vector<SharepoolGroupsInfo>& manifestGroups) const {
  if (adminProLists_.Holds(appName)) {
    std::vector<SharepoolGroupsInfo> all;
    all.reserve(groups_.size());
    for (const SharepoolGroupCfg& group : groups_) {
      all.push_back({group.groupName, kAdmin});
    }
    return all;
  }
  if (manifestGroups.empty()) {
    return {{kDefaultSharepoolGroup, kAlloc}};
  }
  return manifestGroups;
}

void SharepoolCfg::AddSharepoolGroup(const std::string& appName, pid_t pid,
                                     const std::vector<SharepoolGroupsInfo>& groups) const {
  for (const SharepoolGroupsInfo& group : groups) {
    const char* const name = group.groupName.c_str();
    const char* const permission = group.permission.c_str();
    std::string err;
    if (!CheckSharepoolGroupCfg(group, err)) {
      LogWarningRouted(
          "AddSharepoolGroup CheckGroupCfg fail: pid=%d, appName=%s, group=%s, permission=%s, "
          "err=%s",
          pid, appName.c_str(), name, permission, err.c_str());
      continue;
    }
    const std::int32_t result = platGrpAddProc(name, pid, PermissionValue(group));
    if (result == 0) {
      LogInfoRouted("AddSharepoolGroup: success, pid=%d, appName=%s, groupName=%s, permission=%s",
                    pid, appName.c_str(), name, permission);
    } else {
      LogWarningRouted(
          "AddSharepoolGroup failed ret=%d, pid=%d, appName=%s, groupName=%s, permission=%s",
          result, pid, appName.c_str(), name, permission);
    }
  }
}

void SharepoolCfg::SetSharepoolGroupEnv(const std::string& appName,
                                        const std::vector<SharepoolGroupsInfo>& manifestGroups,
                                        Environment& env, std::string& err) const {
  const std::vector<SharepoolGroupsInfo> groups = GetAppSharepoolGroups(appName, manifestGroups);
  if (groups.empty()) {
    return;
  }
  if (const int error = env.Set("SHAREGROUP_PRECONFIG", "1"); error != 0) {
    err +=
        "app=" + appName + " set SHAREGROUP_PRECONFIG failed errno=" + std::to_string(error) + ";";
    return;
  }
  std::string names;
  for (const SharepoolGroupsInfo& group : groups) {
    if (CheckSharepoolGroupCfg(group, err)) {
      names += (names.empty() ? "" : "#") + group.groupName;
    }
  }
  if (const int error = env.Set("SHAREPOOL_GROUP_NAME", names); error != 0) {
    err +=
        "app=" + appName + " set SHAREPOOL_GROUP_NAME failed errno=" + std::to_string(error) + ";";
  }
}

bool SharepoolCfg::CheckSharepoolGroupCfg(const SharepoolGroupsInfo& group,
                                          std::string& err) const {
  if (!knownGroups_.contains(group.groupName)) {
    err += "CheckSharepoolGroupCfg faild groupName=" + group.groupName + " is not legal;";
    return false;
  }
  // A group that bears the name of an admin application takes any permission.
  const std::string& permission = group.permission;
  if (permission.empty() || adminProLists_.Holds(group.groupName) || permission == kAdmin ||
      permission == kAlloc || permission == kReadWrite || permission == kReadOnly) {
    return true;
  }
  err += "CheckSharepoolGroupCfg faild permission=" + permission + " is not legal;";
  return false;
}

}  // namespace ProcMgr
