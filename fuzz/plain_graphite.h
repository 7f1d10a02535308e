#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

/// Graphite blocks to messages in the plainest way: cut a line into fields, translate by itself,
/// copy byte by byte. What the daemon's fast path has to yield, down to the bytes that a timestamp
/// of more than ten digits leaves in the buffer.
class PlainGraphite {
 public:
  explicit PlainGraphite(std::size_t buffer_bytes) : buffer_(buffer_bytes, '\0') {}

  struct Built {
    bool full = false;         ///< a record did not fit: nothing else holds
    std::string_view message;  ///< until the next build
    std::int64_t num_metrics = 0;
    std::int64_t improperly_formatted = 0;
    std::int64_t not_translated = 0;
    bool operator==(const Built&) const = default;
  };
  Built build(std::string_view block);

 private:
  void add_line(std::string_view line, Built& built);

  std::string buffer_;
  std::size_t position_ = 0;
};

}  // namespace fuzz
