#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "skein/limits.h"

namespace pelorus {

/// Complete lines: text that is empty or ends in "\n". Without a remainder before it, a view of
/// what was added.
class CompleteLines {
 public:
  explicit CompleteLines(std::string_view view) : view_(view) {}
  explicit CompleteLines(std::string joined) : joined_(std::move(joined)) {}
  /// Valid as long as this object and the data that were added.
  std::string_view text() const noexcept { return joined_.empty() ? view_ : joined_; }

 private:
  std::string joined_;
  std::string_view view_;
};

/// Makes complete lines out of text that was cut anywhere. What comes behind the last "\n" remains,
/// and stands in front of what is added next. Takes up one pointer while nothing remains. However
/// long the remainder is, adding costs time for what is new alone.
class LineAssembler {
 public:
  /// A line may be as long as one request.
  static constexpr std::size_t MAX_REMAINDER_BYTES = skein::MAX_CONTENT_BYTES;

  /// The complete lines up to the last "\n" of `data`. Throws LimitError, and leaves the remainder
  /// as it is, when that would become longer than `most_remainder` bytes.
  CompleteLines add(std::string_view data, std::size_t most_remainder = MAX_REMAINDER_BYTES);
  /// Bytes of the line whose end has not come.
  std::size_t remaining() const noexcept { return remainder_ ? remainder_->size() : 0; }

 private:
  std::unique_ptr<std::string> remainder_;
};

}  // namespace pelorus
