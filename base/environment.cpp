#include "base/environment.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ProcMgr {

Environment::Environment() {
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    pointers_.push_back(*entry);
  }
  pointers_.push_back(nullptr);
}

int Environment::Set(std::string_view name, std::string_view value) {
  if (name.empty() || name.find('=') != std::string_view::npos) {
    return EINVAL;
  }
  std::string& text = texts_.emplace_back(name);
  text += '=';
  // As in every environment, the value ends at its first zero.
  text += value.substr(0, value.find('\0'));
  const std::string_view label = std::string_view(text).substr(0, name.size() + 1);
  const auto end = pointers_.end() - 1;
  const auto known = std::find_if(pointers_.begin(), end, [label](const char* entry) {
    return std::string_view(entry).starts_with(label);
  });
  if (known == end) {
    pointers_.insert(end, text.data());
  } else {
    *known = text.data();
  }
  return 0;
}

}  // namespace ProcMgr
