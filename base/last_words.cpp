#include "base/last_words.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

#include "base/shared_page.h"

namespace ProcMgr {
namespace {

// A child fills the slot, its pid last (a release); the manager looks at the pid first (an
// acquire), and the child has ended by then. Should the ring come round to a slot just while it is
// being read, the text is a wrong one, and no more than that.
struct Slot {
  std::atomic<pid_t> pid = 0;  // 0: empty.
  std::atomic<std::uint32_t> size = 0;
  std::array<char, kLongestLastWords> text{};
};

struct Ring {
  std::atomic<std::uint32_t> next = 0;
  std::array<Slot, kKeptLastWords> slots;
};
static_assert(std::atomic<pid_t>::is_always_lock_free &&
                  std::atomic<std::uint32_t>::is_always_lock_free,
              "its pages are shared by processes");

// Null if there was no memory: nothing is kept then. An empty ring is all zeros.
Ring* const ring = MakeShared<Ring>();

}  // namespace

void KeepLastWords(pid_t pid, std::string_view text) {
  if (ring == nullptr) {
    return;
  }
  Slot& slot = ring->slots[ring->next.fetch_add(1) % kKeptLastWords];
  slot.pid.store(0);
  const std::size_t size = std::min(text.size(), kLongestLastWords);
  std::copy_n(text.begin(), size, slot.text.begin());
  slot.size.store(static_cast<std::uint32_t>(size));
  slot.pid.store(pid);
}

std::optional<std::string> TakeLastWords(pid_t pid) {
  if (ring == nullptr || ring->next.load() == 0) {
    return std::nullopt;
  }
  const auto slot = std::find_if(ring->slots.begin(), ring->slots.end(),
                                 [pid](const Slot& one) { return one.pid.load() == pid; });
  if (slot == ring->slots.end()) {
    return std::nullopt;
  }
  std::string text(slot->text.data(), std::min<std::size_t>(slot->size.load(), kLongestLastWords));
  slot->pid.store(0);
  return text;
}

}  // namespace ProcMgr
