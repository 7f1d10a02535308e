#include "pelorus/pelorus/log.h"

#include <cxxabi.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <typeinfo>
#include <utility>

#include "pelorus/pelorus/stderr_sink.h"
#include "skein/errors.h"

namespace pelorus::log {
namespace {

struct LevelName {
  std::string_view name;
  spdlog::level::level_enum level;
};
constexpr std::array<LevelName, 4> LEVELS{{
    {"debug", spdlog::level::debug},
    {"info", spdlog::level::info},
    {"warning", spdlog::level::warn},
    {"error", spdlog::level::err},
}};

bool set_level(std::string_view name) {
  for (const LevelName& row : LEVELS) {
    if (row.name != name) continue;
    logger().set_level(row.level);
    return true;
  }
  return false;
}

/// How long the end of the process may wait for who reads the log.
constexpr std::chrono::milliseconds LAST_PATIENCE{500};

std::shared_ptr<spdlog::sinks::sink> standard_error() {
  const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
  return std::make_shared<StderrSink>(
      STDERR_FILENO, journal ? StderrSink::Prefix::PRIORITY : StderrSink::Prefix::TIME);
}

std::string kind_of(const std::exception& failure) {
  const char* name = typeid(failure).name();
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> text(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
  return text ? text.get() : name;
}

}  // namespace

spdlog::logger& logger() {
  static spdlog::logger instance("pelorus", standard_error());
  return instance;
}

void start() {
  std::signal(SIGPIPE, SIG_IGN);
  set_sink(standard_error());
  const char* level = std::getenv("PELORUS_LOG_LEVEL");
  set_level("info");
  if (level != nullptr && !set_level(level)) {
    warning("PELORUS_LOG_LEVEL \"{}\" is no level: logging at info", level);
  }
}

void finish() {
  if (auto* sink = stderr_sink()) sink->finish(LAST_PATIENCE);
}

void set_sink(std::shared_ptr<spdlog::sinks::sink> sink) { logger().sinks() = {std::move(sink)}; }

StderrSink* stderr_sink() { return dynamic_cast<StderrSink*>(logger().sinks().front().get()); }

void hold(bool held) {
  if (auto* sink = stderr_sink()) sink->hold(held);
}

void drop(std::uint64_t lines) {
  if (auto* sink = stderr_sink()) return sink->drop(lines);
  warning("{} log lines were dropped: more than could be written", lines);
}

void write(spdlog::level::level_enum level, fmt::string_view text, fmt::format_args arguments) {
  if (!logger().should_log(level)) return;
  fmt::memory_buffer line;
  fmt::vformat_to(fmt::appender(line), text, arguments);
  logger().log(level, spdlog::string_view_t(line.data(), line.size()));
  logger().flush();  // the end of the record
}

void exception(std::string_view text, const std::exception& failure) {
  exception(text, trace_lines(failure));
}

void exception(std::string_view text, std::span<const std::string> trace) {
  if (!logger().should_log(spdlog::level::err)) return;
  if (auto* sink = stderr_sink()) return sink->log_record(spdlog::level::err, text, trace);
  logger().error(spdlog::string_view_t(text));
  for (const std::string& line : trace) logger().error(spdlog::string_view_t(line));
  logger().flush();
}

void print_trace(const std::exception& failure) {
  for (const std::string& line : trace_lines(failure)) {
    if (auto* sink = stderr_sink()) sink->print(line);
  }
}

std::vector<std::string> trace_lines(const std::exception& failure) {
  const auto* traced = dynamic_cast<const skein::Failure*>(&failure);
  const skein::Trace trace = traced != nullptr ? traced->trace() : skein::Trace::here();
  std::vector<std::string> lines{fmt::format("{}: {}", kind_of(failure), failure.what())};
  for (const std::string& frame : trace.lines()) lines.push_back("    " + frame);
  return lines;
}

}  // namespace pelorus::log
