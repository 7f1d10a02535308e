#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace pelorus::log {

/// Most lines that wait to be written, and so the most that one turn of the loop can log while its
/// reader stands still: a screenful for every node of a large network.
constexpr std::size_t QUEUE_LINES = 16'384;
/// Most bytes that wait to be written, in memory: some 40,000 ordinary lines.
constexpr std::size_t QUEUE_BYTES = 4U << 20;

/// Longest text of one line, before its control bytes are escaped; of a longer one the line says
/// how many bytes were left out. What is shown of a metric that cannot be used fits.
constexpr std::size_t LINE_BYTES = 272U << 10;

/// Lines that wait to be written. Past its limits the oldest are dropped, and counted. The lines of
/// one record stay together: they are dropped together, and once the first byte of a record has
/// been written the rest of it stays. Pure.
class LineQueue {
 public:
  /// The text that the next line is to be appended to, "\n" included; then end_line().
  std::string& text() noexcept { return text_; }
  void end_line() noexcept { ++open_lines_; }
  /// The lines since the record before are one record. Drops the oldest records past the limits.
  void end_record();

  /// Drops all that waits whole, and counts `lines` more that would have come behind it.
  void drop(std::uint64_t lines);
  /// Lines dropped since told(). They stood where next() begins, or behind a record that is begun.
  std::uint64_t dropped() const noexcept { return dropped_; }
  /// The reader knows of those dropped. `rest` is what is still to come of the line that says so.
  void told(std::string_view rest);

  /// Whether a record, or the line about those dropped, has been written in part.
  bool begun() const noexcept { return !begun_.empty(); }
  /// What to write next; empty when nothing waits.
  std::string_view next() const noexcept;
  /// So many bytes of next() have been written.
  void took(std::size_t bytes);

 private:
  struct Record {
    std::size_t bytes;
    std::size_t lines;
  };

  void drop_front();
  void tidy();

  std::string begun_;           ///< the rest of what was written in part; not in `text_` any more
  std::string text_;            ///< the records, behind `head_` bytes that are no longer needed
  std::size_t head_ = 0;        ///< where the first record begins
  std::size_t tail_ = 0;        ///< where the record that is still being added to begins
  std::size_t open_lines_ = 0;  ///< of that record
  std::deque<Record> records_;
  std::size_t lines_ = 0;  ///< of the records
  std::uint64_t dropped_ = 0;
};

}  // namespace pelorus::log
