#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace skein {
class Loop;
}

// The log of the daemon. Logging never blocks and never breaks a line in two: see LogWriter.
// Control bytes in logged texts are escaped. Loop thread only.
namespace pelorus::log {

enum class Level : std::uint8_t { DEBUG, INFO, WARNING, ERROR };

/// Starts logging to standard error, at the level that PELORUS_LOG_LEVEL names (debug, info,
/// warning, error; info by default). If standard error is the journal (JOURNAL_STREAM), each line,
/// also of a trace, begins with its "<N>" priority instead of a time. Warns of an unknown level.
/// Ignores SIGPIPE: if the log has no reader, only its lines are lost.
void start();

/// While the loop runs, the records of an iteration are written at its end. Borrows the loop until
/// detach() or finish().
void attach(skein::Loop& loop);
/// Each record is written immediately again.
void detach();

/// Writes the buffered records at the end of the process, for at most half a second.
void finish();

void set_level(Level level);
/// Whether a line of this level would be written: call it before making a text is expensive.
bool enabled(Level level);

/// Formats and logs a record of one line, if its level is enabled.
void write(Level level, fmt::string_view text, fmt::format_args arguments);

template <class... Args>
void debug(fmt::format_string<Args...> text, Args&&... args) {
  write(Level::DEBUG, text, fmt::make_format_args(args...));
}
template <class... Args>
void info(fmt::format_string<Args...> text, Args&&... args) {
  write(Level::INFO, text, fmt::make_format_args(args...));
}
template <class... Args>
void warning(fmt::format_string<Args...> text, Args&&... args) {
  write(Level::WARNING, text, fmt::make_format_args(args...));
}
template <class... Args>
void error(fmt::format_string<Args...> text, Args&&... args) {
  write(Level::ERROR, text, fmt::make_format_args(args...));
}

/// Logs one record at error level: `text`, then the failure's trace line by line. The trace is the
/// stack that raised the failure if it is a skein::Failure, else the present stack.
void exception(std::string_view text, const std::exception& failure);

/// The same with a trace from trace_lines(), for a failure that many records share.
void exception(std::string_view text, std::span<const std::string> trace);

/// The lines of a failure's trace, its type and text first, as exception() logs them.
std::vector<std::string> trace_lines(const std::exception& failure);

/// Writes those lines without priority or time.
void print_trace(const std::exception& failure);

/// Records between hold(true) and hold(false) are written together.
void hold(bool held);

/// Counts lines as dropped. For a caller with more to log at once than the log's buffer takes
/// (BUFFER_LINES, BUFFER_BYTES): it skips its oldest lines, which the buffer would drop.
void drop(std::uint64_t lines);

/// Lines dropped since the start.
std::uint64_t dropped_lines();

/// Receives each line in place of standard error.
using Capture = std::function<void(Level level, std::string_view line)>;
/// For tests and benchmarks.
void set_capture(Capture capture);

}  // namespace pelorus::log
