#include "tools/check/shared_libraries.h"

#include <glob.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "base/root_path.h"
#include "base/small_file.h"
#include "base/text_lines.h"

namespace ProcMgr::Check {
namespace {

constexpr int kMaxIncludeDepth = 8;
constexpr const char* kConfFolder = "/etc/";

std::vector<std::string> Split(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of(separators), text.size());
    if (end > 0) {
      parts.emplace_back(text.substr(0, end));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

std::string FolderOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

std::string NameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// Paths of the platform that fit, in order. The root's own name is no pattern.
std::vector<std::string> Glob(const std::string& root, const std::string& pattern) {
  std::vector<std::string> paths;
  std::string whole;
  for (const char c : root) {
    whole.append(1, '\\').append(1, c);
  }
  glob_t found{};
  if (glob((whole + pattern).c_str(), 0, nullptr, &found) == 0) {
    for (std::size_t i = 0; i < found.gl_pathc; ++i) {
      paths.push_back(std::string(found.gl_pathv[i]).substr(root.size()));
    }
  }
  globfree(&found);
  return paths;
}

// Other linkers have other rules.
bool IsGnuLinker(const std::string& interpreter) {
  const std::string name = NameOf(interpreter);
  return name.starts_with("ld-linux") || name.starts_with("ld64.so") || name == "ld.so.1";
}

void Replace(const std::string& what, const std::string& with, std::string& text) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
}

// The folders of a search path of the object at `path`. What $LIB stands for is the linker's own
// secret, so each that is in use counts.
void AddFolders(const std::string& searchPath, const std::string& path,
                std::vector<std::string>& folders) {
  for (std::string folder : Split(searchPath, ":;")) {
    for (const char* const name : {"ORIGIN", "LIB"}) {
      Replace(std::string("${") + name + '}', std::string("$") + name, folder);
    }
    Replace("$ORIGIN", FolderOf(path), folder);
    if (folder.find("$LIB") == std::string::npos) {
      folders.push_back(folder);
      continue;
    }
    for (const char* const lib : {"lib", "lib64"}) {
      std::string each = folder;
      Replace("$LIB", lib, each);
      folders.push_back(each);
    }
  }
}

}  // namespace

SharedLibraries::SharedLibraries(std::string root) : root_(std::move(root)) {
  ReadConf("/etc/ld.so.conf", 0);
  for (const char* const pattern : {"/lib/*-linux-*", "/usr/lib/*-linux-*"}) {
    const std::vector<std::string> folders = Glob(root_, pattern);
    commonFolders_.insert(commonFolders_.end(), folders.begin(), folders.end());
  }
  for (const char* const folder : {"/lib64", "/usr/lib64", "/lib", "/usr/lib"}) {
    commonFolders_.emplace_back(folder);
  }
}

void SharedLibraries::ReadConf(const std::string& pattern, int depth) {
  static constexpr std::string_view kSeparators = " \t:,\r";
  for (const std::string& path : Glob(root_, pattern)) {
    std::string text;
    if (depth > kMaxIncludeDepth ||
        ReadSmallFile(ResolveInRoot(root_, path).value_or(""), kConfigFileLimit, text) != 0) {
      continue;
    }
    for (std::string_view rest = text; !rest.empty();) {
      const std::string_view line = TakeLine(rest);
      const std::vector<std::string> words = Split(line.substr(0, line.find('#')), kSeparators);
      const bool isInclude = !words.empty() && words.front() == "include";
      for (std::size_t i = isInclude ? 1 : 0; i < words.size(); ++i) {
        if (isInclude) {
          ReadConf(words[i].starts_with('/') ? words[i] : kConfFolder + words[i], depth + 1);
        } else if (words[i].starts_with('/')) {
          commonFolders_.push_back(words[i]);
        }
      }
    }
  }
}

const std::optional<Executable>& SharedLibraries::FileAt(const std::string& path) {
  const auto known = files_.find(path);
  if (known != files_.end()) {
    return known->second;
  }
  std::optional<Executable> file;
  if (const auto real = ResolveInRoot(root_, path)) {
    file = ReadExecutable(*real).value_or(Executable{Executable::Kind::kElf, 0, {}, {}});
  }
  return files_.emplace(path, std::move(file)).first->second;
}

std::vector<std::string> SharedLibraries::Folders(const std::vector<Object>& objects,
                                                  std::size_t which,
                                                  const std::string& libraryPath) const {
  std::vector<std::string> folders;
  const Object& needing = objects[which];
  if (needing.file.links.runpath.empty()) {
    for (std::optional<std::size_t> i = which; i; i = objects[*i].loader) {
      AddFolders(objects[*i].file.links.rpath, objects[*i].path, folders);
    }
  }
  AddFolders(libraryPath, objects.front().path, folders);
  AddFolders(needing.file.links.runpath, needing.path, folders);
  folders.insert(folders.end(), commonFolders_.begin(), commonFolders_.end());
  return folders;
}

std::optional<SharedLibraries::Object> SharedLibraries::Find(const std::string& name,
                                                             const std::vector<Object>& objects,
                                                             std::size_t which,
                                                             const std::string& libraryPath) {
  std::vector<std::string> paths;
  if (name.find('/') != std::string::npos) {
    paths.push_back(name);
  } else {
    paths = Folders(objects, which, libraryPath);
    for (std::string& path : paths) {
      path.append("/").append(name);
    }
  }
  for (const std::string& path : paths) {
    const std::optional<Executable>& file = FileAt(path);
    // The linker passes over a library for another machine. One that can't be read tells none.
    if (file && file->kind == Executable::Kind::kElf &&
        (file->machine == objects.front().file.machine || file->machine == 0)) {
      return Object{path, *file, which};
    }
  }
  return std::nullopt;
}

bool SharedLibraries::IsInCommonFolder(const std::string& name) {
  return std::any_of(commonFolders_.begin(), commonFolders_.end(),
                     [&](const std::string& folder) { return FileAt(folder + '/' + name); });
}

std::vector<MissingLibrary> SharedLibraries::FindMissing(const std::string& path,
                                                         const Executable& program,
                                                         const std::string& libraryPath) {
  std::vector<MissingLibrary> missing;
  if (!IsGnuLinker(program.interpreter)) {
    return missing;
  }
  // The linker is there, and is itself among the libraries of many.
  std::set<std::string> known = {NameOf(program.interpreter)};
  std::vector<Object> objects = {{path, program, std::nullopt}};
  for (std::size_t i = 0; i < objects.size(); ++i) {
    for (const std::string& name : std::vector(objects[i].file.links.needed)) {
      if (!known.insert(name).second) {
        continue;
      }
      if (std::optional<Object> found = Find(name, objects, i, libraryPath)) {
        known.insert(found->file.links.ownName);
        objects.push_back(std::move(*found));
      } else {
        missing.push_back({name, objects[i].path});
      }
    }
  }
  return missing;
}

}  // namespace ProcMgr::Check
