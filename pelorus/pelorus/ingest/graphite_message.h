#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "pelorus/pelorus/ingest/line_scanner.h"
#include "pelorus/translate/series_translator.h"

namespace pelorus {

/// A fixed run of memory that starts as zeros and costs nothing until it is used.
class OutputBuffer {
 public:
  /// Throws std::system_error when the address space is not to be had.
  explicit OutputBuffer(std::size_t size);
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;
  ~OutputBuffer();

  char* begin() noexcept { return bytes_; }
  const char* end() const noexcept { return bytes_ + size_; }
  std::size_t size() const noexcept { return size_; }

 private:
  char* bytes_;
  std::size_t size_;
};

/// Receives the lines of a block that yield no record, as views that are valid until block_ends()
/// or the failure that ends the build.
class BadLineReporter {
 public:
  virtual ~BadLineReporter() = default;
  /// `line` has not exactly three fields.
  virtual void improperly_formatted(std::string_view line) = 0;
  /// So many empty lines in a row, each of them improperly formatted.
  virtual void empty_lines(std::size_t count) {
    while (count-- > 0) improperly_formatted({});
  }
  virtual void not_translated(std::string_view series, translate::Outcome outcome) = 0;
  /// After the last line.
  virtual void block_ends() {}
};

class VectorScanner;

/// Builds line-protocol messages out of blocks of Graphite lines, in one buffer that is reused.
/// Pure: no clock, no log, no socket.
///
/// A line takes the fast path if the scanner knows its form and its record is sure to fit: it is
/// translated straight into the buffer. Any other line takes the slow path, to the same bytes.
///
/// A scanner reads beyond the end of a line, so the last lines of a block are copied to where there
/// is padding after them:
///
///     block    line \n line \n … line \n│line \n line
///                                       │├─ within SCAN_PADDING bytes of the end ─┤
///     tail_                              line \n line \n │ SCAN_PADDING zeros │
///
/// Copies in steps write beyond the end of a name; what they write there, the blank, the timestamp
/// and the zeros of the same record cover again. So after a record the buffer holds what it held:
///
///     buffer_  records written │ names= │value│i│ │timestamp│000000000\n│ untouched
///                              position_
class GraphiteMessage {
 public:
  struct Built {
    std::string_view message;      ///< in the buffer, until the next build
    std::int64_t num_metrics = 0;  ///< records in it
  };

  explicit GraphiteMessage(std::size_t buffer_bytes);

  /// One record per good line of `block`, in order; the others go to `reporter`, save those whose
  /// value is "nan", which are skipped silently. A block that ends in "\n" has a last, empty line.
  /// `Scanner` is VectorScanner or FallbackScanner, which yield the same. Throws
  /// OutputBufferFullError if a record does not fit the buffer.
  template <class Scanner = VectorScanner>
  Built build(std::string_view block, BadLineReporter& reporter) {
    return build_part<Scanner>(block, SIZE_MAX, 0, reporter);
  }
  /// The same for a block that takes long, part by part: the lines in the first `most_bytes` of
  /// what is left of it, or one line, which are taken off `rest`. The records stand in the buffer
  /// behind the `built_bytes` of the parts before. `rest` is empty after the last part.
  template <class Scanner = VectorScanner>
  Built build_part(std::string_view& rest, std::size_t most_bytes, std::size_t built_bytes,
                   BadLineReporter& reporter);

 private:
  template <class Scanner>
  void add_lines(const char* begin, const char* end, BadLineReporter& reporter);
  bool add_fast(const FastPathLine& line, BadLineReporter& reporter);
  void add_slowly(const ScannedLine& line, BadLineReporter& reporter);

  OutputBuffer buffer_;
  std::string tail_;   ///< the last lines of a block, with padding
  std::string names_;  ///< of a record on the slow path
  char* position_ = nullptr;
  std::int64_t num_metrics_ = 0;
  translate::GraphiteSeriesTranslator series_translator_;
};

}  // namespace pelorus
