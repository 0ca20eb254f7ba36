#include "tools/check/elf_links.h"

#include <elf.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

namespace ProcMgr::Check {
namespace {

// The kernel takes no more program headers.
constexpr std::size_t kMaxHeaders = 65536 / sizeof(Elf64_Phdr);
// More than any program has.
constexpr std::size_t kMaxEntries = 16384;
constexpr std::size_t kMaxText = 4096;

bool ReadAt(int fd, std::uint64_t offset, void* out, std::size_t size) {
  return pread(fd, out, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

std::string TextAt(int fd, std::uint64_t offset) {
  std::string text(kMaxText, '\0');
  const ssize_t got = pread(fd, text.data(), text.size(), static_cast<off_t>(offset));
  text.resize(got > 0 ? strnlen(text.data(), static_cast<std::size_t>(got)) : 0);
  return text;
}

template <typename Header, typename Segment>
std::vector<Segment> ReadSegments(int fd) {
  std::vector<Segment> segments;
  Header header{};
  if (!ReadAt(fd, 0, &header, sizeof(header)) || header.e_phentsize != sizeof(Segment)) {
    return segments;
  }
  const std::size_t count = std::min<std::size_t>(header.e_phnum, kMaxHeaders);
  for (std::size_t i = 0; i < count; ++i) {
    Segment segment{};
    if (!ReadAt(fd, header.e_phoff + i * sizeof(segment), &segment, sizeof(segment))) {
      break;
    }
    segments.push_back(segment);
  }
  return segments;
}

// Where the file holds what is loaded at `address`.
template <typename Segment>
std::optional<std::uint64_t> OffsetOf(const std::vector<Segment>& segments, std::uint64_t address) {
  for (const Segment& segment : segments) {
    if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
        address - segment.p_vaddr < segment.p_filesz) {
      return segment.p_offset + (address - segment.p_vaddr);
    }
  }
  return std::nullopt;
}

template <typename Entry, typename Segment>
std::vector<Entry> ReadEntries(int fd, const Segment& segment) {
  std::vector<Entry> entries;
  const std::size_t count = std::min<std::uint64_t>(segment.p_filesz / sizeof(Entry), kMaxEntries);
  for (std::size_t i = 0; i < count; ++i) {
    Entry entry{};
    if (!ReadAt(fd, segment.p_offset + i * sizeof(entry), &entry, sizeof(entry)) ||
        entry.d_tag == DT_NULL) {
      break;
    }
    entries.push_back(entry);
  }
  return entries;
}

template <typename Entry, typename Segment>
void ReadDynamic(int fd, const std::vector<Segment>& segments, const Segment& dynamic,
                 ElfLinks& links) {
  const std::vector<Entry> entries = ReadEntries<Entry>(fd, dynamic);
  const auto table = std::find_if(entries.begin(), entries.end(),
                                  [](const Entry& entry) { return entry.d_tag == DT_STRTAB; });
  const auto texts = table == entries.end() ? std::nullopt : OffsetOf(segments, table->d_un.d_ptr);
  if (!texts) {
    return;
  }
  for (const Entry& entry : entries) {
    const auto text = [&] { return TextAt(fd, *texts + entry.d_un.d_val); };
    switch (entry.d_tag) {
      case DT_NEEDED:
        links.needed.push_back(text());
        break;
      case DT_SONAME:
        links.ownName = text();
        break;
      case DT_RPATH:
        links.rpath = text();
        break;
      case DT_RUNPATH:
        links.runpath = text();
        break;
      default:
        break;
    }
  }
  if (!links.runpath.empty()) {
    links.rpath.clear();
  }
}

template <typename Header, typename Segment, typename Entry>
ElfLinks ReadLinks(int fd) {
  ElfLinks links;
  const std::vector<Segment> segments = ReadSegments<Header, Segment>(fd);
  for (const Segment& segment : segments) {
    if (segment.p_type == PT_INTERP && segment.p_filesz >= 2 && segment.p_filesz <= kMaxText) {
      links.interpreter = TextAt(fd, segment.p_offset);
    } else if (segment.p_type == PT_DYNAMIC) {
      ReadDynamic<Entry>(fd, segments, segment, links);
    }
  }
  return links;
}

}  // namespace

ElfLinks ReadElfLinks(int fd, bool is64Bit) {
  return is64Bit ? ReadLinks<Elf64_Ehdr, Elf64_Phdr, Elf64_Dyn>(fd)
                 : ReadLinks<Elf32_Ehdr, Elf32_Phdr, Elf32_Dyn>(fd);
}

}  // namespace ProcMgr::Check
