// A text of bounded size that needs no heap.
#ifndef BASE_FIXED_TEXT_H
#define BASE_FIXED_TEXT_H

#include <array>
#include <charconv>
#include <cstddef>
#include <limits>
#include <string_view>

namespace ProcMgr {

// Holds up to `kSize` bytes; what doesn't fit is cut off. For a child before its exec: no
// allocation, no lock, no locale.
template <std::size_t kSize>
class FixedText {
 public:
  FixedText& Add(std::string_view text) {
    const std::size_t taken = text.copy(bytes_.data() + size_, bytes_.size() - size_);
    size_ += taken;
    return *this;
  }

  // Adds the number in decimal digits.
  template <typename Number>
  FixedText& AddNumber(Number number) {
    std::array<char, std::numeric_limits<Number>::digits10 + 2> digits;  // A sign, and the first.
    const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return Add({digits.data(), static_cast<std::size_t>(end - digits.data())});
  }

  [[nodiscard]] std::string_view View() const { return {bytes_.data(), size_}; }
  [[nodiscard]] bool IsEmpty() const { return size_ == 0; }

 private:
  std::array<char, kSize> bytes_;  // Only the first size_ bytes are ever read.
  std::size_t size_ = 0;
};

// What the steps of a child have to tell, each ending in ";". As much as one write to a pipe keeps
// together.
using ErrText = FixedText<4000>;

}  // namespace ProcMgr

#endif  // BASE_FIXED_TEXT_H
