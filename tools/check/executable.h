// What the kernel needs of a program before it runs it.
#ifndef TOOLS_CHECK_EXECUTABLE_H
#define TOOLS_CHECK_EXECUTABLE_H

#include <cstdint>
#include <optional>
#include <string>

#include "tools/check/elf_links.h"

namespace ProcMgr::Check {

// What the head of a program's file tells.
struct Executable {
  enum class Kind { kElf, kScript, kOther };
  Kind kind = Kind::kOther;
  // Of an ELF file: its machine and class, as one number that is equal for equal kinds.
  std::uint32_t machine = 0;
  // The dynamic linker of an ELF file or the interpreter of a script; empty for none.
  std::string interpreter;
  // Of an ELF file of this machine's byte order.
  ElfLinks links = {};
};

// Reads the head of the regular file at `path`; none if it can't be read. Foreign input: whatever
// is cut off or out of bounds makes it a file of another kind.
[[nodiscard]] std::optional<Executable> ReadExecutable(const std::string& path);

// A machine of Executable in words.
[[nodiscard]] std::string MachineName(std::uint32_t machine);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_EXECUTABLE_H
