#include "base/root_path.h"

#include <filesystem>
#include <system_error>

namespace ProcMgr {
namespace {

namespace fs = std::filesystem;

// What the kernel follows at most on one path.
constexpr int kMaxLinks = 40;

}  // namespace

std::optional<std::string> ResolveInRoot(const std::string& root, const std::string& path) {
  fs::path rest = fs::path(path).relative_path();
  fs::path done;  // Relative to the root, holds neither links nor "..".
  for (int links = 0; !rest.empty();) {
    const fs::path part = *rest.begin();
    fs::path behind;
    for (auto step = std::next(rest.begin()); step != rest.end(); ++step) {
      behind /= *step;
    }
    rest = behind;
    if (part == "..") {
      done = done.parent_path();
      continue;
    }
    if (part == "." || part.empty()) {
      continue;
    }
    const fs::path here = fs::path(root + '/') / done / part;
    std::error_code error;
    const fs::file_status status = fs::symlink_status(here, error);
    if (!fs::exists(status)) {
      return std::nullopt;
    }
    if (!fs::is_symlink(status)) {
      done /= part;
      continue;
    }
    const fs::path target = fs::read_symlink(here, error);
    if (error || ++links > kMaxLinks) {
      return std::nullopt;
    }
    if (target.is_absolute()) {
      done.clear();
    }
    rest = target.relative_path() / rest;
  }
  return (fs::path(root + '/') / done).string();
}

}  // namespace ProcMgr
