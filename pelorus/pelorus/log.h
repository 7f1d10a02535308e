#pragma once

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The one logger of the daemon, named "pelorus". Control bytes in whatever is logged are escaped
// by the sink, and a line never breaks in two. To log never waits: see StderrSink. Loop thread
// only.
namespace pelorus::log {

class StderrSink;

spdlog::logger& logger();

/// Logs to standard error from now on, at the level that PELORUS_LOG_LEVEL names (debug, info,
/// warning, error; info by default). Under the journal (JOURNAL_STREAM is set) each line, those of
/// a trace too, begins with its "<N>" priority instead of a time. An unknown level is a warning.
/// Ignores SIGPIPE: a log without a reader loses its lines and nothing else.
void start();

/// Writes out what still waits, at the end of the process: gives up after half a second.
void finish();

/// Counts lines as dropped that would have come now. For who has more to say at once than the log
/// takes (QUEUE_LINES, QUEUE_BYTES): it leaves the older ones unsaid, which the sink would drop.
void drop(std::uint64_t lines);

/// Between hold(true) and hold(false) lines gather, to be written in one go.
void hold(bool held);

/// Where start() has the lines go; none where a test has them go elsewhere.
StderrSink* stderr_sink();
/// Replaces where lines go. For tests.
void set_sink(std::shared_ptr<spdlog::sinks::sink> sink);

/// Formats and logs, or does neither where the level is off.
void write(spdlog::level::level_enum level, fmt::string_view text, fmt::format_args arguments);

/// Whether a line of this level would go anywhere: ask before its text costs much to make.
inline bool enabled(spdlog::level::level_enum level) { return logger().should_log(level); }

template <class... Args>
void debug(fmt::format_string<Args...> text, Args&&... args) {
  write(spdlog::level::debug, text, fmt::make_format_args(args...));
}
template <class... Args>
void info(fmt::format_string<Args...> text, Args&&... args) {
  write(spdlog::level::info, text, fmt::make_format_args(args...));
}
template <class... Args>
void warning(fmt::format_string<Args...> text, Args&&... args) {
  write(spdlog::level::warn, text, fmt::make_format_args(args...));
}
template <class... Args>
void error(fmt::format_string<Args...> text, Args&&... args) {
  write(spdlog::level::err, text, fmt::make_format_args(args...));
}

/// Logs `text` at error level, then the failure's trace line by line: the stack that raised it
/// where it is a skein::Failure, else the present one.
void exception(std::string_view text, const std::exception& failure);

/// The same with a trace that was taken before, for failures that many lines share.
void exception(std::string_view text, std::span<const std::string> trace);

/// The lines of a failure's trace, its kind and text first, as exception() logs them.
std::vector<std::string> trace_lines(const std::exception& failure);

/// Writes those lines as they stand, without priority or time.
void print_trace(const std::exception& failure);

}  // namespace pelorus::log
