#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/ingest/graphite_message.h"
#include "pelorus/pelorus/ingest/ingested.h"

namespace pelorus {

/// As much of a line, or of a series, as the log shows; the rest is counted.
constexpr std::size_t SHOWN_BYTES = 64U << 10;
/// As much of a warning as is kept for the status.
constexpr std::size_t KEPT_WARNING_BYTES = 160;

/// Logs the bad lines of one block, in order, when the block ends: only as many of the newest as
/// the log can take are put into words, and the log is told the number of the others. So a block of
/// a million line ends costs next to nothing. All lines that fail in an unexpected way fail in the
/// same place: the trace is taken once. What was bad is noted for the status, whatever is logged.
class BadLines : public BadLineReporter {
 public:
  explicit BadLines(Ingested& ingested);
  BadLines(const BadLines&) = delete;
  BadLines& operator=(const BadLines&) = delete;
  /// Logs what is left, where a failure has ended the block.
  ~BadLines() override;

  void improperly_formatted(std::string_view line) override;
  void empty_lines(std::size_t count) override;
  void not_translated(std::string_view series, translate::Outcome outcome) override;
  void block_ends() override;

 private:
  struct BadLine {
    std::string_view text;                                        ///< the line, or its series
    translate::Outcome outcome = translate::Outcome::TRANSLATED;  ///< that of a malformed line
  };

  void add(std::string_view text, translate::Outcome outcome);
  void note(std::string_view text, translate::Outcome outcome);
  void skip_oldest();
  /// What it comes to in the log: its lines, and its bytes at least.
  std::size_t lines_of(translate::Outcome outcome) const;
  std::size_t bytes_of(std::string_view text, translate::Outcome outcome) const;
  static std::string text_of(const BadLine& line, std::size_t shown_bytes);
  void log(const BadLine& line);
  void log_unexpected(const std::string& text);

  Ingested& ingested_;
  const bool warns_;  ///< warnings are logged, and not only errors
  BadLine last_;      ///< that is noted
  /// The newest, as a ring once it has grown to its full size.
  std::vector<BadLine> ring_;
  std::uint64_t begin_ = 0, end_ = 0;  ///< numbers of the first in the ring, and behind the last
  std::size_t lines_ = 0, bytes_ = 0;  ///< what those in the ring come to
  std::uint64_t skipped_ = 0;          ///< lines of the log that were left unsaid
  std::string kind_;                   ///< what the first line of such a trace begins with
  std::vector<std::string> trace_;     ///< of the failures that nobody expects
  std::size_t trace_bytes_ = 0;
};

/// `text`, which shows `shown` or its first SHOWN_BYTES, and the number of the bytes that it does
/// not show.
std::string with_left_out(std::string text, std::string_view shown);

}  // namespace pelorus
