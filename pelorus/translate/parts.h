#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pelorus/translate/outcome.h"
#include "pelorus/translate/slice.h"

namespace translate {

/// Where the parts of a series name end, a bit for each of its first 64 bytes: set at every dot and
/// at the byte after the name. The scanner of a line finds them on the way. What the bits do not
/// tell, because the name is longer or they are UNKNOWN_ENDS, is looked up in the name.
///
///     series    n o d e 7 . l o a d . a
///     bit       0 0 0 0 0 1 0 0 0 0 1 0 1
using PartEnds = std::uint64_t;
constexpr PartEnds UNKNOWN_ENDS = 0;

/// The parts of a series name between its dots, without those that were removed from the front.
///
/// A part that the name lacks reads as empty and is remembered as a fault, which voids the result:
/// so rules need no checks, and nothing is thrown on the fast path.
///
/// Part i ends at the i-th set bit, counted from 0, and begins after the one before it. `ends &
/// (ends - 1)` clears the lowest set bit, so each part costs an instruction and no search.
class Parts {
 public:
  explicit Parts(std::string_view series, PartEnds ends = UNKNOWN_ENDS) noexcept
      : series_(series), ends_(ends) {}

  /// TRANSLATED as long as every part that was asked for is there.
  Outcome fault() const noexcept { return fault_; }

  [[gnu::always_inline]] Slice operator[](std::size_t index) noexcept {
    PartEnds before = UNKNOWN_ENDS;
    PartEnds ends = ends_;
#pragma GCC unroll 4
    for (std::size_t i = 0; i < index; ++i) {
      before = ends;
      ends &= ends - 1;
    }
    if (ends == UNKNOWN_ENDS) [[unlikely]]
      return look_up(index);
    return between(index == 0 ? begin_ : lowest(before) + 1, lowest(ends));
  }
  void remove_first() noexcept {
    begin_ = (ends_ == UNKNOWN_ENDS ? look_up_end(begin_) : lowest(ends_)) + 1;
    ends_ &= ends_ - 1;
  }
  /// The part before the last.
  Slice last_but_one() noexcept;
  /// From the start of `begin`, which lies in one of these parts, to the end of the part before the
  /// last, dots included; to the end of begin's own part if that is the last one.
  Slice up_to_last(Slice begin) const noexcept;

 private:
  static std::size_t lowest(PartEnds ends) noexcept {
    return static_cast<std::size_t>(__builtin_ctzll(ends));
  }
  Slice between(std::size_t begin, std::size_t end) const noexcept {
    return {series_.data() + begin, end - begin};
  }
  std::size_t look_up_end(std::size_t begin) const noexcept;
  Slice look_up(std::size_t index) noexcept;
  Slice missing() noexcept;

  std::string_view series_;
  PartEnds ends_;          ///< of the parts that are left
  std::size_t begin_ = 0;  ///< of the first part that is left; after the name if none is
  Outcome fault_ = Outcome::TRANSLATED;
};

}  // namespace translate
