#include "tools/check/executable.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <string_view>

#include "base/unique_fd.h"

namespace ProcMgr::Check {
namespace {

// The kernel takes no longer first line of a script.
constexpr std::size_t kHeadBytes = 256;

Executable ReadElf(int fd, const std::array<char, kHeadBytes>& head) {
  Executable elf{Executable::Kind::kElf, 0, {}, {}};
  const auto byteAt = [&head](std::size_t i) -> std::uint32_t {
    return static_cast<std::uint8_t>(head[i]);
  };
  const bool isBig = head[EI_DATA] == ELFDATA2MSB;
  const std::size_t at = offsetof(Elf64_Ehdr, e_machine);
  const std::uint32_t machine =
      isBig ? byteAt(at) << 8U | byteAt(at + 1) : byteAt(at + 1) << 8U | byteAt(at);
  elf.machine = machine << 16U | byteAt(EI_CLASS) << 8U | byteAt(EI_DATA);
  const bool isOwnOrder = isBig == (std::endian::native == std::endian::big);
  // Another byte order is another machine anyhow.
  if (isOwnOrder) {
    elf.links = ReadElfLinks(fd, head[EI_CLASS] == ELFCLASS64);
    elf.interpreter = elf.links.interpreter;
  }
  return elf;
}

Executable ReadScript(std::string_view line) {
  static constexpr std::string_view kBlanks = " \t";
  line.remove_prefix(std::min<std::size_t>(2, line.size()));
  line = line.substr(0, line.find('\n'));
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  return {
      Executable::Kind::kScript, 0, std::string(line.substr(0, line.find_first_of(kBlanks))), {}};
}

}  // namespace

std::optional<Executable> ReadExecutable(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::array<char, kHeadBytes> head{};
  const ssize_t got = fd.IsOpen() ? read(fd.Get(), head.data(), head.size()) : -1;
  if (got < 0) {
    return std::nullopt;
  }
  const std::string_view text(head.data(), static_cast<std::size_t>(got));
  if (text.starts_with(ELFMAG) && text.size() >= sizeof(Elf32_Ehdr)) {
    return ReadElf(fd.Get(), head);
  }
  return text.starts_with("#!") ? ReadScript(text) : Executable{};
}

std::string MachineName(std::uint32_t machine) {
  const std::uint32_t number = machine >> 16U;
  const std::string bits = ((machine >> 8U) & 0xffU) == ELFCLASS64 ? "64 bit" : "32 bit";
  switch (number) {
    case EM_X86_64:
      return "x86-64, " + bits;
    case EM_386:
      return "x86, " + bits;
    case EM_AARCH64:
      return "AArch64, " + bits;
    case EM_ARM:
      return "Arm, " + bits;
    case EM_RISCV:
      return "RISC-V, " + bits;
    default:
      return "ELF machine " + std::to_string(number) + ", " + bits;
  }
}

}  // namespace ProcMgr::Check
