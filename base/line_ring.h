// Lines in the order in which they came, in memory that is taken once.
#ifndef BASE_LINE_RING_H
#define BASE_LINE_RING_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace ProcMgr {

// Not safe for several threads at once. An emptied ring begins at the start of its memory again, so
// a reader that keeps up leaves most of the memory untouched.
class LineRing {
 public:
  static constexpr std::size_t kMaxLines = 4096;
  static constexpr std::size_t kMaxTextBytes = std::size_t{16} << 10;

  struct Line {
    int level = 0;
    std::uint64_t lostBefore = 0;  // How many lines were lost between the one before and this one.
    const char* text = nullptr;    // Ends with a NUL; belongs to the ring until the Pop.
  };

  LineRing() : memory_(std::make_unique_for_overwrite<std::byte[]>(kBytes)) {}

  [[nodiscard]] bool IsEmpty() const { return lines_ == 0; }
  [[nodiscard]] std::size_t Lines() const { return lines_; }

  // Takes a copy of the line, without needing memory. Yields false if there is no room now. `text`
  // has at most kMaxTextBytes, so an empty ring has room for any.
  [[nodiscard]] bool Push(int level, std::uint64_t lostBefore, std::string_view text);

  // The oldest line, and its end. The ring isn't empty.
  [[nodiscard]] Line Front() const;
  void Pop();

 private:
  struct Header {
    std::uint64_t lostBefore;
    std::uint32_t bytes;  // Of the whole record: this header, the text, its NUL, padding.
    std::int32_t level;
  };
  static constexpr std::size_t kBytes = std::size_t{1} << 20;

  // Where a record of `bytes` goes; none if it fits nowhere.
  [[nodiscard]] std::optional<std::size_t> FindRoom(std::size_t bytes) const;

  std::unique_ptr<std::byte[]> memory_;
  std::size_t lines_ = 0;
  std::size_t head_ = 0;  // The oldest record.
  std::size_t tail_ = 0;  // Behind the newest one.
  // Once records go on at the start of the memory: where those before them end. 0 otherwise.
  std::size_t wrappedAt_ = 0;
};

}  // namespace ProcMgr

#endif  // BASE_LINE_RING_H
