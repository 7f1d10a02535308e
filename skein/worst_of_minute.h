#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace skein {

/// The largest of the values that came in the last minute, to ten seconds. Constant memory, and
/// nothing has to run for a value to grow old.
class WorstOfMinute {
 public:
  /// `now`: milliseconds of a clock that never steps.
  void note(std::uint64_t now, std::uint64_t value) noexcept {
    const std::uint64_t number = now / SLOT_MILLISECONDS;
    Slot& slot = slots_[number % SLOTS];
    if (slot.number != number) slot = {number, 0};
    slot.worst = std::max(slot.worst, value);
  }

  /// 0 when there was none.
  std::uint64_t worst(std::uint64_t now) const noexcept {
    const std::uint64_t number = now / SLOT_MILLISECONDS;
    std::uint64_t worst = 0;
    for (const Slot& slot : slots_) {
      if (slot.number + SLOTS > number) worst = std::max(worst, slot.worst);
    }
    return worst;
  }

 private:
  static constexpr std::uint64_t SLOT_MILLISECONDS = 10'000;
  static constexpr std::uint64_t SLOTS = 7;  // six whole ones and the present one

  struct Slot {
    std::uint64_t number = 0;
    std::uint64_t worst = 0;
  };
  std::array<Slot, SLOTS> slots_{};
};

}  // namespace skein
