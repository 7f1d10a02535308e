#pragma once

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The one logger of the daemon, named "pelorus". Control bytes in whatever is logged are escaped
// by the sink, and a line never breaks in two. Loop thread only.
namespace pelorus::log {

spdlog::logger& logger();

/// Logs to standard error from now on, at the level that PELORUS_LOG_LEVEL names (debug, info,
/// warning, error; info by default). Under the journal (JOURNAL_STREAM is set) each line, those of
/// a trace too, begins with its "<N>" priority instead of a time. An unknown level is a warning.
void start();

/// Replaces where lines go. For tests.
void set_sink(std::shared_ptr<spdlog::sinks::sink> sink);

template <class... Args>
void debug(fmt::format_string<Args...> text, Args&&... args) {
  logger().log(spdlog::level::debug, text, std::forward<Args>(args)...);
}
template <class... Args>
void info(fmt::format_string<Args...> text, Args&&... args) {
  logger().log(spdlog::level::info, text, std::forward<Args>(args)...);
}
template <class... Args>
void warning(fmt::format_string<Args...> text, Args&&... args) {
  logger().log(spdlog::level::warn, text, std::forward<Args>(args)...);
}
template <class... Args>
void error(fmt::format_string<Args...> text, Args&&... args) {
  logger().log(spdlog::level::err, text, std::forward<Args>(args)...);
}

/// Logs `text` at error level, then the failure's trace line by line: the stack that raised it
/// where it is a skein::Failure, else the present one.
void exception(std::string_view text, const std::exception& failure);

/// The lines of that trace, the failure's kind and text first, as exception() logs them.
std::vector<std::string> trace_lines(const std::exception& failure);

/// `text` with every control byte as \xNN (\t, \n, \r in their short form).
std::string escape_controls(std::string_view text);

}  // namespace pelorus::log
