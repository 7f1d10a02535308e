#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

/// Requests "collectd" of the corpus's lines, ready to be sent: one run of bytes, and where each
/// frame ends. All carry the same number, so that the replies to them are the same bytes.
class Frames {
 public:
  struct Cut {
    std::size_t first_line = 0;  ///< of the corpus, which is used round and round
    std::size_t lines = 0;       ///< in all
    std::size_t per_frame = 0;
    /// Every so many lines one that no daemon can translate, or that is no line; 0: none.
    std::size_t bad_every = 0;
  };

  Frames(const Cut& cut, std::string_view key);

  std::size_t count() const noexcept { return ends_.size() - 1; }
  std::size_t lines() const noexcept { return lines_; }
  /// The frames from `first` on, `count` of them.
  std::string_view run(std::size_t first, std::size_t count) const noexcept;

 private:
  std::string bytes_;
  std::vector<std::size_t> ends_{0};
  std::size_t lines_;
};

/// One frame around a request.
std::string request_frame(std::string_view name, std::string_view encoded_args);
/// The frame that answers any of the requests above when all is well.
std::string good_reply();

}  // namespace bench
