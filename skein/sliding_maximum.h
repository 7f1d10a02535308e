#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace skein {

/// Sliding-window maximum: the largest of the values that came in the last minute, to ten seconds.
/// Constant memory, and nothing has to run for a value to grow old.
class SlidingMaximum {
 public:
  /// `now`: milliseconds of a clock that never steps.
  void note(std::uint64_t now, std::uint64_t value) noexcept {
    const std::uint64_t slot = now / SLOT_MILLISECONDS;
    auto& [number, most] = slots_[slot % SLOTS];
    most = number == slot ? std::max(most, value) : value;
    number = slot;
  }

  /// 0 when there was none.
  std::uint64_t most(std::uint64_t now) const noexcept {
    std::uint64_t result = 0;
    for (const auto& [number, most] : slots_) {
      if (number + SLOTS > now / SLOT_MILLISECONDS) result = std::max(result, most);
    }
    return result;
  }

 private:
  static constexpr std::uint64_t SLOT_MILLISECONDS = 10'000;
  static constexpr std::uint64_t SLOTS = 7;  // six whole ones and the present one

  /// Number of the ten seconds since the clock began, and the largest value in them.
  std::array<std::pair<std::uint64_t, std::uint64_t>, SLOTS> slots_{};
};

}  // namespace skein
