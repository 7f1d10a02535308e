#pragma once

#include <spdlog/sinks/sink.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "pelorus/pelorus/line_queue.h"
#include "pelorus/pelorus/log_outlet.h"

namespace pelorus::log {

/// Writes each record as one line, control bytes escaped, and never waits for who reads it: what is
/// not taken at once waits here, within the limits of LineQueue, and the next line that gets out
/// says how many were dropped.
///
/// log() adds a line to the present record and flush() ends the record. It is written at once then,
/// unless write-outs are paced: then only the first few records between two paces are, and the
/// others are written together at the next pace, or when much has gathered.
class StderrSink : public spdlog::sinks::sink {
 public:
  /// What a line begins with.
  enum class Prefix {
    TIME,     ///< local time in milliseconds, then the level
    PRIORITY  ///< "<N>" of the system log, which the journal takes off again
  };

  /// The descriptor stays the caller's.
  StderrSink(int descriptor, Prefix prefix) : outlet_(descriptor), prefix_(prefix) {}

  void log(const spdlog::details::log_msg& message) override;
  void flush() override;
  /// The form of a line is settled: this does nothing, and neither does set_formatter().
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

  /// A record of these lines at once, with the time of the first: `first`, then `others`.
  void log_record(spdlog::level::level_enum level, std::string_view first,
                  std::span<const std::string> others);
  /// A record of one line that stands as it is, control bytes escaped.
  void print(std::string_view line);
  /// Counts lines as dropped that would have come now, and drops what waits before them.
  void drop(std::uint64_t lines);

  /// While it is held, only what has gathered is written: for many records that come in one go.
  void hold(bool held);
  /// From now on pace() is called often, until this is called again with false.
  void set_paced(bool paced);
  /// Writes out what waits. False when not all of it was taken.
  bool pace();
  /// Bytes that were written so far.
  std::uint64_t written() const noexcept { return written_; }
  /// Writes out what waits, waiting for the reader, though not beyond `longest`.
  void finish(std::chrono::milliseconds longest);

 private:
  std::string_view prefix(spdlog::level::level_enum level, spdlog::log_clock::time_point moment);
  void add_line(std::string_view prefix, std::string_view line);
  bool write_out();
  bool tell_dropped();
  std::size_t put(std::string_view bytes);

  Outlet outlet_;
  Prefix prefix_;
  LineQueue queue_;
  std::uint64_t written_ = 0;
  bool paced_ = false;
  bool held_ = false;
  int write_outs_ = 0;       ///< since the last pace
  bool stuck_ = false;       ///< not all of it was taken: the next pace tries again
  std::time_t second_ = -1;  ///< the one that `second_text_` shows
  std::string second_text_;
  std::chrono::milliseconds millisecond_{-1};  ///< that of `prefix_text_`, as is the level
  spdlog::level::level_enum level_ = spdlog::level::off;
  std::string prefix_text_;
};

}  // namespace pelorus::log
