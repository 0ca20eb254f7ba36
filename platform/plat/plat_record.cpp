#include "platform/plat/plat_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "base/unique_fd.h"

namespace ProcMgr {
namespace {

constexpr std::size_t kMaxGroupName = 63;
constexpr std::uint32_t kMaxNodes = 4096;

bool IsFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Writes `text` to root/folder/name, making the folders first. Whatever fails, the caller goes on:
// the files only show what the record holds.
void Show(const std::string& root, const char* folder, const std::string& name, int flags,
          const std::string& text) {
  if (!IsFileName(name)) {
    return;
  }
  const std::string directory = root + "/" + folder;
  (void)mkdir(root.c_str(), 0755);
  (void)mkdir(directory.c_str(), 0755);
  const UniqueFd file(
      open((directory + "/" + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644));
  if (file.IsOpen() && !text.empty()) {
    const ssize_t written = write(file.Get(), text.data(), text.size());
    (void)written;
  }
}

}  // namespace

PlatRecord::PlatRecord(std::string root) : root_(std::move(root)) {}

std::uint32_t PlatRecord::RegisterSensor(const std::string& name, std::uint64_t& handle) {
  const MutexLock lock(mutex_);
  handle = ++lastHandle_;
  sensors_.emplace(handle, name);
  return 0;
}

std::uint32_t PlatRecord::UnregisterSensor(std::uint64_t handle) {
  const MutexLock lock(mutex_);
  return sensors_.erase(handle) == 1 ? 0 : kPlatUnknown;
}

std::uint32_t PlatRecord::UpdateSensor(std::uint64_t handle, std::uint32_t value) {
  const MutexLock lock(mutex_);
  const auto sensor = sensors_.find(handle);
  if (sensor == sensors_.end()) {
    return kPlatUnknown;
  }
  Show(root_, "sensor", sensor->second, O_TRUNC, std::to_string(value));
  return 0;
}

std::int32_t PlatRecord::CreateGroup(const std::string& name) {
  if (name.empty() || name.size() > kMaxGroupName) {
    return kPlatInvalid;
  }
  const MutexLock lock(mutex_);
  if (!groups_.insert(name).second) {
    return kPlatGrpExists;
  }
  Show(root_, "group", name, O_TRUNC, "");
  return 0;
}

std::int32_t PlatRecord::AddProcess(const std::string& name, pid_t pid, std::uint32_t permission) {
  const MutexLock lock(mutex_);
  if (!groups_.contains(name)) {
    return kPlatUnknown;
  }
  // 0 and negative numbers would ask kill about process groups.
  if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
    return kPlatNoProcess;
  }
  Show(root_, "group", name, O_APPEND,
       std::to_string(pid) + " " + std::to_string(permission) + "\n");
  return 0;
}

bool ParseNodeList(const std::string& text, PlatMemInfo& info) {
  std::string_view rest = text;
  if (rest.ends_with('\n')) {
    rest.remove_suffix(1);
  }
  PlatMemInfo nodes{};
  for (;;) {
    const std::string_view token = rest.substr(0, rest.find(','));
    const auto range = ParseRange(token, kMaxNodes);
    if (!range || nodes.nodeCount + (range->second - range->first) >= kMaxNodes) {
      return false;
    }
    for (std::uint32_t node = range->first; node <= range->second; ++node) {
      if (nodes.nodeCount < nodes.nodes.size()) {
        nodes.nodes[nodes.nodeCount] = static_cast<std::int32_t>(node);
      }
      ++nodes.nodeCount;
    }
    if (token.size() == rest.size()) {
      break;
    }
    rest.remove_prefix(token.size() + 1);
  }
  info = nodes;
  return true;
}

}  // namespace ProcMgr
