#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pelorus {

/// Most bytes of heads (those of 1xx answers before the real one included), and of trailers.
constexpr std::size_t MAX_HEAD_BYTES = 64U << 10;
/// Most bytes of the line that gives the size of a chunk.
constexpr std::size_t MAX_CHUNK_LINE_BYTES = 1024;
/// Most bytes of a body: an answer that goes on is judged by what has come until then.
constexpr std::size_t MAX_BODY_KEPT_BYTES = 64U << 10;

/// Reads the answer to one HTTP/1.x request out of the bytes of its connection: the head, then a
/// body by length, in chunks or until the close. How the bytes are cut makes no difference.
/// Answers 1xx are skipped; 204 and 304 end with their head. Pure: no socket, clock or log.
///
/// Lines may end in LF alone. Bytes that are no answer are refused for good, see fault().
class HTTPResponse {
 public:
  /// Takes the next bytes of the stream. Those after the answer's end, or after a fault, are
  /// ignored.
  void feed(std::string_view bytes);
  /// The stream has ended: so has a body that reaches until the close; another answer is cut off.
  void finish();

  /// The answer has come to its end, or its body to MAX_BODY_KEPT_BYTES.
  bool complete() const noexcept { return phase_ == Phase::COMPLETE; }
  /// Why this never will be a whole answer; empty while it may.
  const std::string& fault() const noexcept { return fault_; }

  /// Three digits from 100 to 599; 0 until a status line has come.
  int status() const noexcept { return status_; }
  /// The beginning of the body, as far as it has come: at most MAX_BODY_KEPT_BYTES.
  const std::string& body() const noexcept { return body_; }
  /// The line that has come in part, or that was refused.
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
  std::size_t line_bytes_left_ = MAX_HEAD_BYTES;  ///< until the lines of this phase are too long
  std::optional<std::uint64_t> content_length_;
  bool transfer_encoded_ = false;
  bool chunked_ = false;               ///< the last of the transfer encodings is "chunked"
  std::uint64_t body_bytes_left_ = 0;  ///< of the sized body or of the present chunk
};

}  // namespace pelorus
