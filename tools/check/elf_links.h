// What an ELF file asks of the dynamic linker.
#ifndef TOOLS_CHECK_ELF_LINKS_H
#define TOOLS_CHECK_ELF_LINKS_H

#include <string>
#include <vector>

namespace ProcMgr::Check {

// Texts of the file, each cut off at 4 KiB; empty for what it doesn't have.
struct ElfLinks {
  std::string interpreter;
  std::string ownName;
  std::vector<std::string> needed;
  // Folders with colons between them. A file with a run path has no rpath that counts.
  std::string rpath;
  std::string runpath;
};

// Reads those of the ELF file of this machine's byte order. Foreign input: what is cut off or out
// of bounds is left out.
[[nodiscard]] ElfLinks ReadElfLinks(int fd, bool is64Bit);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_ELF_LINKS_H
