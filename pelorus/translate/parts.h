#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pelorus/translate/slice.h"

namespace translate {

/// What becomes of one series name. A caller that asks about a single name gets an exception
/// instead.
enum class Outcome : std::uint8_t {
  TRANSLATED,
  // Names that cannot be translated: GraphiteSeriesTranslationError.
  SHORT_SOURCE,         ///< the source part has fewer than 4 bytes
  INVALID_SOURCE_TYPE,  ///< it begins neither with "n" nor with "m"
  NO_RULE,              ///< no row of the table takes the plugin part
  KEY_MISSING,          ///< the rule yields an empty field key
  REFUSED,              ///< the rule cannot read the name, and gives no reason
  // Names that no rule checks for: UnexpectedSeriesError.
  PART_MISSING,
  NO_DASH,
  KEY_UNASSIGNED,
};

/// Whether the outcome is one that a rule does not check for.
constexpr bool is_unexpected(Outcome outcome) noexcept { return outcome >= Outcome::PART_MISSING; }

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
      return find_part(index);
    return between(index == 0 ? begin_ : lowest(before) + 1, lowest(ends));
  }
  void remove_first() noexcept {
    begin_ = (ends_ == UNKNOWN_ENDS ? find_end(begin_) : lowest(ends_)) + 1;
    ends_ &= ends_ - 1;
  }
  /// The part before the last.
  [[gnu::noinline]] Slice last_but_one() noexcept {
    const std::size_t end = series_.rfind('.');
    if (end == series_.npos || end < begin_) return missing();
    const std::size_t dot = end == 0 ? series_.npos : series_.rfind('.', end - 1);
    return between(dot == series_.npos || dot < begin_ ? begin_ : dot + 1, end);
  }
  /// From the start of `begin`, which lies in one of these parts, to the end of the part before the
  /// last, dots included; to the end of begin's own part if that is the last one.
  [[gnu::noinline]] Slice up_to_last(Slice begin) const noexcept {
    const std::size_t last_dot = series_.rfind('.');
    const auto at = static_cast<std::size_t>(begin.data - series_.data());
    if (last_dot == series_.npos || last_dot < at + begin.size) return begin;
    return {begin.data, last_dot - at};
  }

 private:
  static std::size_t lowest(PartEnds ends) noexcept {
    return static_cast<std::size_t>(__builtin_ctzll(ends));
  }
  Slice between(std::size_t begin, std::size_t end) const noexcept {
    return {series_.data() + begin, end - begin};
  }
  std::size_t find_end(std::size_t begin) const noexcept {
    return std::min(series_.find('.', begin), series_.size());
  }
  [[gnu::noinline]] Slice find_part(std::size_t index) noexcept {
    for (std::size_t begin = begin_; begin <= series_.size();) {
      const std::size_t end = find_end(begin);
      if (index-- == 0) return between(begin, end);
      begin = end + 1;
    }
    return missing();
  }
  Slice missing() noexcept {
    fault_ = Outcome::PART_MISSING;
    return {series_.data(), 0};
  }

  std::string_view series_;
  PartEnds ends_;          ///< of the parts that are left
  std::size_t begin_ = 0;  ///< of the first part that is left; after the name if none is
  Outcome fault_ = Outcome::TRANSLATED;
};

}  // namespace translate
