#pragma once

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The one logger of the daemon, named "pelorus". Control bytes in whatever is logged are escaped
// by the sink, and a line never breaks in two. Loop thread only.
namespace pelorus::log {

spdlog::logger& logger();

/// Logs to standard error from now on, at the level that PELORUS_LOG_LEVEL names (debug, info,
/// warning, error; info by default). Under the journal (JOURNAL_STREAM is set) each line, those of
/// a trace too, begins with its "<N>" priority instead of a time. An unknown level is a warning.
/// Ignores SIGPIPE: a log without a reader loses its lines and nothing else.
void start();

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

/// The lines of that trace, the failure's kind and text first, as exception() logs them.
std::vector<std::string> trace_lines(const std::exception& failure);

/// `text` with every control byte as \xNN (\t, \n, \r in their short form), the C1 controls of
/// UTF-8 and bytes that are no UTF-8 included.
std::string escape_controls(std::string_view text);

}  // namespace pelorus::log
