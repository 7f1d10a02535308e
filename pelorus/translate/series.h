#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "pelorus/translate/text.h"

namespace translate {

/// Where the dots of a series name stand, as far as rules look: the first KEPT and the last two.
/// A rule reads no part behind the fifth from the front, and from the end only the last two.
struct Cuts {
  static constexpr std::size_t KEPT = 6;

  std::array<std::uint32_t, KEPT> front;  ///< offsets of the first dots; the first `count` are set
  std::uint32_t count = 0;                ///< dots in all
  std::uint32_t last = 0;                 ///< offset of the last dot, if there is one
  std::uint32_t last_but_one = 0;         ///< offset of the dot before it, if there are two

  void add(std::uint32_t dot) noexcept {
    if (count < KEPT) front[count] = dot;
    last_but_one = last;
    last = dot;
    ++count;
  }

  static Cuts of(std::string_view series) noexcept;
};

/// What became of one series name.
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
  NOT_TWO_PIECES,
  KEY_UNASSIGNED,
};

/// Whether the outcome is one that a rule does not check for.
constexpr bool is_unexpected(Outcome outcome) noexcept { return outcome >= Outcome::PART_MISSING; }

/// The parts of a series name between its dots, without those that were removed from the front.
/// A part that the name lacks reads as empty and is remembered as a fault, which voids the result:
/// so rules need no checks and nothing is thrown on the road of each line.
class Parts {
 public:
  /// Borrows both; `series` has PIECE_SLACK readable bytes behind it.
  Parts(std::string_view series, const Cuts& cuts) noexcept : series_(series), cuts_(cuts) {}

  /// TRANSLATED as long as every part that was asked for is there.
  Outcome fault() const noexcept { return fault_; }

  std::size_t size() const noexcept { return cuts_.count + 1 - first_; }
  void remove_first() noexcept { ++first_; }

  Piece operator[](std::size_t index) noexcept {
    index += first_;
    if (index > cuts_.count) return missing();
    const std::size_t begin = index == 0 ? 0 : cuts_.front[index - 1] + 1;
    return between(begin, index == cuts_.count ? series_.size() : cuts_.front[index]);
  }
  /// The part before the last.
  Piece last_but_one() noexcept;
  /// From `begin`, which lies in one of these parts, to the end of the part before the last, dots
  /// included; to the end of begin's own part where that is the last one.
  Piece up_to_last(Piece begin) const noexcept;

 private:
  Piece missing() noexcept;
  Piece between(std::size_t begin, std::size_t end) const noexcept {
    return {series_.data() + begin, end - begin};
  }

  std::string_view series_;
  const Cuts& cuts_;
  std::size_t first_ = 0;
  Outcome fault_ = Outcome::TRANSLATED;
};

/// Tags in the order of insertion, which is their order on the wire. A key that is there already
/// keeps its place and gets the new value.
class Tags {
 public:
  struct Tag {
    Piece key;
    Text value;
  };

  void set(Piece key, const Text& value) noexcept {
    for (std::size_t i = 0; i < count_; ++i) {
      if (tags_[i].key.is(key)) {
        tags_[i].value = value;
        return;
      }
    }
    tags_[count_++] = {key, value};
  }

  const Tag* begin() const noexcept { return tags_.data(); }
  const Tag* end() const noexcept { return tags_.data() + count_; }
  std::size_t size() const noexcept { return count_; }

 private:
  static constexpr std::size_t MOST = 3;  // the node, and at most two of a rule

  std::array<Tag, MOST> tags_;  // the first count_ are set
  std::size_t count_ = 0;
};

/// What a rule makes of a name, in views over it. Measurement and key hold when it is TRANSLATED.
/// Built where its caller wants it: it is never copied on the road of each line.
struct Match {
  Text measurement{};
  Text key{};
  Outcome outcome = Outcome::TRANSLATED;
};

using Rule = Match (*)(Tags& tags, Parts& parts);

/// The rule cannot read the name.
inline Match no_match() noexcept { return {.outcome = Outcome::REFUSED}; }

/// `text` without as many bytes as `skipped` has, whatever they are; empty when it is shorter.
template <std::size_t N>
Piece past(Piece text, const char (&)[N]) noexcept {
  const std::size_t drop = std::min(text.size, N - 1);
  return {text.data + drop, text.size - drop};
}

/// `text` without its last `count` bytes; empty when it is shorter.
inline Piece without_last(Piece text, std::size_t count) noexcept {
  return {text.data, text.size - std::min(text.size, count)};
}

/// The last `count` bytes of `text`, or all of it when it is shorter.
inline Piece last(Piece text, std::size_t count) noexcept {
  const std::size_t kept = std::min(text.size, count);
  return {text.data + text.size - kept, kept};
}

template <std::size_t N>
bool starts_with(Piece text, const char (&prefix)[N]) noexcept {
  return text.size >= N - 1 && std::memcmp(text.data, prefix, N - 1) == 0;
}

template <std::size_t N>
bool operator==(Piece text, const char (&literal)[N]) noexcept {
  return text.size == N - 1 && std::memcmp(text.data, literal, N - 1) == 0;
}

/// `text` at both sides of its first "-"; none without one.
std::optional<std::array<Piece, 2>> split_at_dash(Piece text) noexcept;

}  // namespace translate
