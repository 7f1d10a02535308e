#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/ingest/graphite_message.h"
#include "pelorus/pelorus/ingest/ingest_result.h"

namespace pelorus {

/// As much of a line, or of a series, as the log shows; the rest is counted.
constexpr std::size_t SHOWN_BYTES = 64U << 10;
/// As much of a warning as is kept for the status.
constexpr std::size_t KEPT_WARNING_BYTES = 160;

/// Logs the bad lines of one block, in order, when the block ends: a ring buffer of the newest, as
/// many as the log's buffer takes. Only those are formatted, and the log is told the number of the
/// others, so a block of a million line ends costs next to nothing. All lines that fail in an
/// unexpected way fail in the same place: the trace is taken once. Counts the bad lines for the
/// status, whether they are logged or not.
class BadLines : public BadLineReporter {
 public:
  /// `totals`: also counts the bad lines there. Borrowed.
  explicit BadLines(BadLineCounts& totals);
  BadLines(const BadLines&) = delete;
  BadLines& operator=(const BadLines&) = delete;
  /// Logs what is left, if a failure has ended the block.
  ~BadLines() override;

  void improperly_formatted(std::string_view line) override;
  void empty_lines(std::size_t count) override;
  void not_translated(std::string_view series, translate::Outcome outcome) override;
  void block_ends() override;

  /// Bad lines so far. An empty line does not count: every block ends with one.
  std::uint64_t count() const noexcept { return count_; }
  /// The start of the last one's warning, once the block has ended; empty if there was none.
  const std::string& last_warning() const noexcept { return last_warning_; }

 private:
  struct BadLine {
    std::string_view text;                                        ///< the line, or its series
    translate::Outcome outcome = translate::Outcome::TRANSLATED;  ///< that of a malformed line
  };

  void add(std::string_view text, translate::Outcome outcome);
  void count(std::string_view text, translate::Outcome outcome);
  void skip_oldest();
  /// Its lines in the log, and its bytes there at least.
  std::size_t lines_of(translate::Outcome outcome) const;
  std::size_t bytes_of(std::string_view text, translate::Outcome outcome) const;
  static std::string text_of(const BadLine& line, std::size_t shown_bytes);
  void log(const BadLine& line);
  void log_unexpected(const std::string& text);

  BadLineCounts& totals_;
  const bool warns_;         ///< whether warnings are logged, and not only errors
  std::uint64_t count_ = 0;  ///< empty lines left out
  BadLine last_;             ///< the last that was counted
  std::string last_warning_;
  std::vector<BadLine> ring_;
  std::uint64_t begin_ = 0, end_ = 0;  ///< numbers of the first in the ring, and after the last
  std::size_t lines_ = 0, bytes_ = 0;  ///< in the log, of those in the ring
  std::uint64_t skipped_ = 0;          ///< lines of the log that were left out
  std::string kind_;                   ///< what the first line of a trace begins with
  std::vector<std::string> trace_;     ///< of the unexpected failures
  std::size_t trace_bytes_ = 0;
};

/// A block of Graphite lines that becomes one message in several steps. Borrows the lines.
struct GraphiteBlock {
  GraphiteBlock(std::string_view lines, BadLineCounts& totals) : rest(lines), bad_lines(totals) {}

  std::string_view rest;  ///< lines to be translated; empty after the last step
  BadLines bad_lines;
  std::string message;       ///< their records
  std::int64_t records = 0;  ///< in `message`
};

/// `text`, which shows `shown` or its first SHOWN_BYTES, with the number of bytes left out.
std::string with_left_out(std::string text, std::string_view shown);

}  // namespace pelorus
