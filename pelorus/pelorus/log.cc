#include "pelorus/pelorus/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <typeinfo>
#include <utility>

#include "pelorus/pelorus/log_writer.h"
#include "skein/errors.h"

namespace pelorus::log {
namespace {

using Clock = std::chrono::system_clock;

/// How long the end of the process may wait for the reader of the log.
constexpr std::chrono::milliseconds LAST_WAIT{500};

/// Whether standard error is the stream that JOURNAL_STREAM names by device and inode. Elsewhere
/// the variable is inherited from a service whose standard error was redirected.
bool goes_to_journal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat about {};
  return stream != nullptr && ::fstat(STDERR_FILENO, &about) == 0 &&
         fmt::format("{}:{}", about.st_dev, about.st_ino) == stream;
}

std::unique_ptr<LogWriter> standard_error() {
  const bool journal = goes_to_journal();
  return std::make_unique<LogWriter>(
      STDERR_FILENO, journal ? LogWriter::Prefix::PRIORITY : LogWriter::Prefix::TIME);
}

struct State {
  Level level = Level::INFO;
  std::unique_ptr<LogWriter> writer = standard_error();
  Capture capture;  ///< receives the lines in place of the writer, if set
};

State& state() {
  static State instance;
  return instance;
}

/// One record: `first`, then `others`.
void add(Level level, std::string_view first, std::span<const std::string> others = {}) {
  const Capture& capture = state().capture;
  if (!capture) return state().writer->write(level, Clock::now(), first, others);
  capture(level, first);
  for (const std::string& line : others) capture(level, line);
}

/// False if no level has this name.
bool set_level_named(std::string_view name) {
  for (const Level level : {Level::DEBUG, Level::INFO, Level::WARNING, Level::ERROR}) {
    if (name_of(level) != name) continue;
    set_level(level);
    return true;
  }
  return false;
}

}  // namespace

void start() {
  std::signal(SIGPIPE, SIG_IGN);
  state().writer = standard_error();
  state().capture = nullptr;
  set_level(Level::INFO);
  const char* level = std::getenv("PELORUS_LOG_LEVEL");
  if (level != nullptr && !set_level_named(level)) {
    warning("PELORUS_LOG_LEVEL \"{}\" is no level: logging at info", level);
  }
}

void attach(skein::Loop& loop) { state().writer->attach(loop); }
void detach() { state().writer->detach(); }
void finish() { state().writer->finish(LAST_WAIT); }

void set_level(Level level) { state().level = level; }
bool enabled(Level level) { return level >= state().level; }

void write(Level level, fmt::string_view text, fmt::format_args arguments) {
  if (!enabled(level)) return;
  fmt::memory_buffer line;
  fmt::vformat_to(fmt::appender(line), text, arguments);
  add(level, {line.data(), line.size()});
}

void exception(std::string_view text, const std::exception& failure) {
  exception(text, trace_lines(failure));
}

void exception(std::string_view text, std::span<const std::string> trace) {
  if (enabled(Level::ERROR)) add(Level::ERROR, text, trace);
}

std::vector<std::string> trace_lines(const std::exception& failure) {
  const auto* traced = dynamic_cast<const skein::Failure*>(&failure);
  const skein::Trace trace = traced != nullptr ? traced->trace() : skein::Trace::here();
  std::vector<std::string> lines{
      fmt::format("{}: {}", skein::demangled(typeid(failure).name()), failure.what())};
  for (const std::string& frame : trace.lines()) lines.push_back("    " + frame);
  return lines;
}

void print_trace(const std::exception& failure) {
  for (const std::string& line : trace_lines(failure)) state().writer->write_bare(line);
}

void hold(bool held) { state().writer->hold(held); }

void drop(std::uint64_t lines) {
  if (!state().capture) return state().writer->drop(lines);
  state().capture(Level::WARNING, dropped_text(lines));
}

std::uint64_t dropped_lines() { return state().writer->dropped_lines(); }

void set_capture(Capture capture) { state().capture = std::move(capture); }

}  // namespace pelorus::log
