#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pelorus {

/// Most bytes of heads, those of 1xx responses before the final one included, and of trailers.
constexpr std::size_t MAX_HEAD_BYTES = 64U << 10;
/// Most bytes of the line that gives the size of a chunk.
constexpr std::size_t MAX_CHUNK_LINE_BYTES = 1024;
/// Most bytes of a body that are kept. A longer response counts as complete at this point.
constexpr std::size_t MAX_BODY_KEPT_BYTES = 64U << 10;

/// Parses the response to one HTTP/1.x request from the bytes of its connection, however they are
/// divided: the head, then a body by length, in chunks or until the close. 1xx responses are
/// skipped; 204 and 304 end with their head. Lines may end in LF alone. Bytes that are no response
/// are refused for good, see fault(). No socket, clock or log.
///
///   STATUS_LINE -> HEADERS -> COMPLETE                      204, 304, 101, or length 0
///                          -> STATUS_LINE                   another 1xx
///                          -> CHUNK_SIZE                    last transfer encoding is chunked
///                          -> BODY_UNTIL_CLOSE -> COMPLETE  another encoding, or no length
///                          -> SIZED_BODY -> COMPLETE        a length
///   CHUNK_SIZE -> CHUNK -> CHUNK_END -> CHUNK_SIZE
///              -> TRAILERS -> COMPLETE                      size 0
///   Any phase but COMPLETE may go to REFUSED; a body of MAX_BODY_KEPT_BYTES goes to COMPLETE.
class HTTPResponse {
 public:
  /// Takes the next bytes of the stream. Ignores those after the response's end or a fault.
  void feed(std::string_view bytes);
  /// The stream has ended. This completes a body that lasts until the close and refuses any other
  /// incomplete response.
  void finish();

  /// The response is complete, or MAX_BODY_KEPT_BYTES of its body are.
  bool complete() const noexcept { return phase_ == Phase::COMPLETE; }
  /// Why the response cannot become complete; empty while it can.
  const std::string& fault() const noexcept { return fault_; }

  /// From 100 to 599; 0 before the status line.
  int status() const noexcept { return status_; }
  /// The body received so far, at most MAX_BODY_KEPT_BYTES.
  const std::string& body() const noexcept { return body_; }
  /// The line that is incomplete or was refused.
  const std::string& line() const noexcept { return line_; }

 private:
  enum class Phase {
    STATUS_LINE,
    HEADERS,
    SIZED_BODY,
    BODY_UNTIL_CLOSE,
    CHUNK_SIZE,
    CHUNK,
    CHUNK_END,
    TRAILERS,
    COMPLETE,
    REFUSED
  };

  bool in_body() const noexcept;
  std::size_t take_body(std::string_view bytes);
  std::size_t take_line(std::string_view bytes);
  void end_line();
  void read_status(std::string_view line);
  void read_header(std::string_view line);
  void read_content_length(std::string_view value);
  void end_head();
  void read_chunk_size(std::string_view line);
  void expect_line(Phase phase, std::size_t most_bytes);
  void refuse(std::string fault);

  Phase phase_ = Phase::STATUS_LINE;
  std::string fault_;
  int status_ = 0;
  std::string body_;
  std::string line_;
  std::size_t line_bytes_left_ = MAX_HEAD_BYTES;  ///< of the lines of this phase
  std::optional<std::uint64_t> content_length_;
  bool transfer_encoded_ = false;
  bool chunked_ = false;               ///< the last transfer encoding is "chunked"
  std::uint64_t body_bytes_left_ = 0;  ///< of SIZED_BODY or CHUNK
};

}  // namespace pelorus
