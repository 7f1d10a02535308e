#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pelorus/translate/outcome.h"
#include "pelorus/translate/text.h"

namespace translate {

/// Where the parts of a series name end, a bit for each of its first 64 bytes: set at every dot and
/// at the byte behind the name. What the bits don't tell, because the name is longer or they are
/// UNKNOWN_ENDS, is looked up in the name.
using PartEnds = std::uint64_t;
constexpr PartEnds UNKNOWN_ENDS = 0;

/// The parts of a series name between its dots, without those that were removed from the front.
/// A part that the name lacks reads as empty and is remembered as a fault, which voids the result:
/// so rules need no checks and nothing is thrown on the road of each line.
class Parts {
 public:
  explicit Parts(std::string_view series, PartEnds ends = UNKNOWN_ENDS) noexcept
      : series_(series), ends_(ends) {}

  /// TRANSLATED as long as every part that was asked for is there.
  Outcome fault() const noexcept { return fault_; }

  [[gnu::always_inline]] Piece operator[](std::size_t index) noexcept {
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
  Piece last_but_one() noexcept;
  /// From `begin`, which lies in one of these parts, to the end of the part before the last, dots
  /// included; to the end of begin's own part where that is the last one.
  Piece up_to_last(Piece begin) const noexcept;

 private:
  static std::size_t lowest(PartEnds ends) noexcept {
    return static_cast<std::size_t>(__builtin_ctzll(ends));
  }
  Piece between(std::size_t begin, std::size_t end) const noexcept {
    return {series_.data() + begin, end - begin};
  }
  std::size_t look_up_end(std::size_t begin) const noexcept;
  Piece look_up(std::size_t index) noexcept;
  Piece missing() noexcept;

  std::string_view series_;
  PartEnds ends_;          ///< of the parts that are left
  std::size_t begin_ = 0;  ///< of the first part that is left; behind the name when none is
  Outcome fault_ = Outcome::TRANSLATED;
};

}  // namespace translate
