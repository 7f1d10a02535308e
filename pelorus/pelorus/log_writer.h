#pragma once

#include <uv.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <span>
#include <string>
#include <string_view>

#include "pelorus/pelorus/log.h"
#include "skein/loops.h"
#include "skein/socket.h"

namespace pelorus::log {

/// Most lines in the buffer, and so the most that one iteration of the loop can log while the
/// reader is blocked: a screenful for every node of a large network.
constexpr std::size_t BUFFER_LINES = 16'384;
/// Most bytes in the buffer: some 40,000 ordinary lines.
constexpr std::size_t BUFFER_BYTES = 4U << 20;

/// Longest text of one line, before its control bytes are escaped; a longer one is cut, and the
/// line says how many bytes were left out. The excerpt of a bad metric fits.
constexpr std::size_t LINE_BYTES = 272U << 10;

/// "debug", "info", "warning" or "error".
std::string_view name_of(Level level);
/// The text of the line that replaces dropped lines.
std::string dropped_text(std::uint64_t lines);

/// Buffer of records to be written, oldest first. Beyond its limits the oldest records are dropped
/// and counted. A record is dropped as a whole; once its first byte has been written, the rest is
/// kept. No descriptor or clock.
///
///     begun_        text_
///     ├─ rest of ─┤ ├ no longer needed ┼ record ┼ record ┼ … ┼ the one being appended ┤
///                                      head_                 tail_
///
/// Dropped records were at head_: their count is written after begun_ and before the record there.
class RecordBuffer {
 public:
  /// For the lines of the next record: append them, each with its "\n", then call end_record().
  std::string& text() noexcept { return text_; }
  /// The text since the last record is one record of `lines` lines.
  void end_record(std::size_t lines);

  /// Drops all records that have not begun, and counts `lines` more as dropped after them.
  void drop(std::uint64_t lines);
  /// Lines dropped since dropped_written().
  std::uint64_t dropped() const noexcept { return dropped_; }
  /// Lines dropped since the start.
  std::uint64_t dropped_in_all() const noexcept { return reported_ + dropped_; }
  /// The line about dropped lines has been written, except `rest`.
  void dropped_written(std::string_view rest);

  /// Whether a record, or the line about dropped ones, has been written in part.
  bool begun() const noexcept { return !begun_.empty(); }
  /// What to write next; empty if the buffer is empty.
  std::string_view next() const noexcept;
  /// The first `bytes` bytes of next() have been written.
  void written(std::size_t bytes);

 private:
  struct Record {
    std::size_t bytes;
    std::size_t lines;
  };

  void drop_oldest();
  void free_written();

  std::string begun_;     ///< the rest of what was written in part; no longer in `text_`
  std::string text_;      ///< the records, after `head_` bytes that are no longer needed
  std::size_t head_ = 0;  ///< where the oldest record begins
  std::size_t tail_ = 0;  ///< where the newest record ends
  std::deque<Record> records_;
  std::size_t lines_ = 0;  ///< of the records
  std::uint64_t dropped_ = 0;
  std::uint64_t reported_ = 0;  ///< dropped lines that the log has reported
};

/// Writes records to a descriptor, each line with its prefix and with control bytes escaped, and
/// never blocks: unwritten records wait in a RecordBuffer, and the next line that is written says
/// how many lines were dropped.
///
/// The descriptor is shared with whoever started the daemon, so its mode stays as it is. A socket
/// is written to with MSG_DONTWAIT. A pipe or terminal is opened a second time, without blocking;
/// if that fails, poll() checks before each write whether it has room for one page. A file is
/// written to directly.
///
/// When a record is written depends on three things:
///
///     reader_       held_  loop_     a record                        is written
///     ------------  -----  --------  ------------------------------ ------------------------------
///     FULL, FAILED  any    none      waits                           by flush() or finish()
///     FULL, FAILED  any    attached  waits                           by a timer: after 2 ms, then
///                                                                    doubling to 100 ms
///     READY         yes    any       waits, up to 64 KiB             by hold(false)
///     READY         no     none      does not wait                   immediately
///     READY         no     attached  the first 32 of an iteration do not,  immediately,
///                                    the others do, up to 64 KiB     at the end of the iteration
///
/// `reader_` is the result of the last write: READY if all was written, FULL if there was no room,
/// FAILED after an error.
class LogWriter {
 public:
  /// What a line begins with.
  enum class Prefix {
    TIME,     ///< local time in milliseconds, then the level
    PRIORITY  ///< "<N>" of the system log, which the journal removes
  };
  using Moment = std::chrono::system_clock::time_point;

  /// The descriptor stays the caller's and open.
  LogWriter(int descriptor, Prefix prefix);
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;
  ~LogWriter() { detach(); }

  /// Adds a record of these lines, all with the same prefix: `first`, then `others`.
  void write(Level level, Moment moment, std::string_view first,
             std::span<const std::string> others = {});
  /// Adds a record of one line without prefix.
  void write_bare(std::string_view line);
  /// Counts `lines` lines as dropped, and drops the records in the buffer, which are older.
  void drop(std::uint64_t lines);
  /// Lines dropped since the start.
  std::uint64_t dropped_lines() const noexcept { return buffer_.dropped_in_all(); }
  /// While held, records are buffered: for a caller that adds many.
  void hold(bool held);

  /// From now on records are written at the end of each iteration. Borrows the loop until detach().
  void attach(skein::Loop& loop);
  void detach();
  /// Writes the buffer. Returns whether all of it was written.
  bool flush();
  /// Detaches and writes the buffer; waits for the reader, but not longer than `longest`.
  void finish(std::chrono::milliseconds longest);

 private:
  enum class Kind { FILE, SOCKET, STREAM };
  enum class Reader { READY, FULL, FAILED };

  static Kind kind_of(int descriptor) noexcept;
  std::string_view prefix(Level level, Moment moment);
  void append_line(std::string_view prefix, std::string_view line);
  void end_record(std::size_t lines);
  void flush_if_due();
  void iteration_ends();
  void write_buffer();
  bool write_dropped();
  std::size_t put(std::string_view bytes) noexcept;
  ssize_t put_part(std::string_view bytes) const noexcept;

  int descriptor_;
  Kind kind_;
  skein::Socket own_;  ///< the same pipe or terminal, not blocking; none if that was refused
  Prefix prefix_;
  RecordBuffer buffer_;

  Reader reader_ = Reader::READY;
  bool held_ = false;
  int writes_ = 0;  ///< in this iteration of the loop
  skein::Loop* loop_ = nullptr;
  skein::UvHandle<uv_prepare_t> iteration_end_;
  skein::Timer retry_;
  std::chrono::milliseconds retry_wait_;

  /// The last prefix: many lines of the same millisecond share it.
  std::string prefix_text_;
  std::chrono::milliseconds prefix_millisecond_{-1};
  Level prefix_level_ = Level::DEBUG;
  std::string second_text_;
  std::time_t second_ = -1;  ///< the one that `second_text_` shows
};

}  // namespace pelorus::log
