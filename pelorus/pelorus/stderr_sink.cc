#include "pelorus/pelorus/stderr_sink.h"

#include <fmt/compile.h>

#include <array>
#include <iterator>

#include "skein/text.h"

namespace pelorus::log {
namespace {

/// Priority of a level in the system log.
int priority(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return 7;
    case spdlog::level::info:
      return 6;
    case spdlog::level::warn:
      return 4;
    default:
      return 3;
  }
}

/// "2024-05-01 13:45:00"
std::string local_time(std::time_t second) {
  std::tm parts{};
  localtime_r(&second, &parts);
  std::array<char, sizeof("2024-05-01 13:45:00") + 8> text{};  // room for a year of more digits
  const auto length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  return {text.data(), length};
}

/// Lines that have gathered so far are written without waiting for the next pace.
constexpr std::size_t GATHERED_BYTES = 64U << 10;
/// Records that are written by themselves between two paces: what one connection may cause in a
/// turn of the loop, so that a peer that is answered finds what was logged about it.
constexpr int WRITE_OUTS = 32;

}  // namespace

void StderrSink::log(const spdlog::details::log_msg& message) {
  add_line(prefix(message.level, message.time), {message.payload.data(), message.payload.size()});
}

void StderrSink::log_record(spdlog::level::level_enum level, std::string_view first,
                            std::span<const std::string> others) {
  const std::string_view begin = prefix(level, spdlog::log_clock::now());
  add_line(begin, first);
  for (const std::string& line : others) add_line(begin, line);
  flush();
}

void StderrSink::add_line(std::string_view prefix, std::string_view line) {
  std::string& text = queue_.text();
  text += prefix;
  const std::size_t left_out = line.size() > LINE_BYTES ? line.size() - LINE_BYTES : 0;
  line.remove_suffix(left_out);
  skein::append_escaped(text, line);
  if (left_out > 0) text += fmt::format(" ({} bytes left out)", left_out);
  text += '\n';
  queue_.end_line();
}

/// What a line begins with; good until the next call. Many lines of the same millisecond share it.
std::string_view StderrSink::prefix(spdlog::level::level_enum level,
                                    spdlog::log_clock::time_point moment) {
  const auto millisecond = std::chrono::floor<std::chrono::milliseconds>(moment.time_since_epoch());
  if (millisecond == millisecond_ && level == level_) return prefix_text_;
  millisecond_ = millisecond;
  level_ = level;
  prefix_text_.clear();
  if (prefix_ == Prefix::PRIORITY) {
    return prefix_text_ += {'<', static_cast<char>('0' + priority(level)), '>'};
  }
  const std::time_t second = spdlog::log_clock::to_time_t(moment);
  if (second != second_) second_text_ = local_time(second);
  second_ = second;
  const auto name = spdlog::level::to_string_view(level);
  fmt::format_to(std::back_inserter(prefix_text_), FMT_COMPILE("{}.{:03} {} "), second_text_,
                 millisecond.count() % 1000, std::string_view(name.data(), name.size()));
  return prefix_text_;
}

void StderrSink::flush() {
  queue_.end_record();
  if (stuck_) return;
  const bool at_once = !held_ && (!paced_ || write_outs_ < WRITE_OUTS);
  if (at_once || queue_.next().size() >= GATHERED_BYTES) write_out();
}

void StderrSink::print(std::string_view line) {
  skein::append_escaped(queue_.text(), line);
  queue_.text() += '\n';
  queue_.end_line();
  flush();
}

void StderrSink::drop(std::uint64_t lines) {
  if (!stuck_) write_out();
  queue_.drop(lines);
}

void StderrSink::hold(bool held) {
  held_ = held;
  flush();
}

void StderrSink::set_paced(bool paced) {
  paced_ = paced;
  pace();
}

bool StderrSink::pace() {
  const bool all = write_out();
  write_outs_ = 0;
  return all;
}

bool StderrSink::write_out() {
  ++write_outs_;
  stuck_ = true;
  while (!queue_.next().empty()) {
    if (queue_.dropped() > 0 && !queue_.begun() && !tell_dropped()) return false;
    const std::string_view next = queue_.next();
    const std::size_t taken = put(next);
    const bool all = taken == next.size();
    queue_.took(taken);
    if (!all) return false;
  }
  stuck_ = false;
  return true;
}

/// False when not a byte of it was taken.
bool StderrSink::tell_dropped() {
  std::string line(prefix(spdlog::level::warn, spdlog::log_clock::now()));
  line += fmt::format("{} log lines were dropped: more than could be written\n", queue_.dropped());
  const std::size_t taken = put(line);
  if (taken > 0) queue_.told(std::string_view(line).substr(taken));
  return taken > 0;
}

std::size_t StderrSink::put(std::string_view bytes) {
  const std::size_t taken = outlet_.put(bytes);
  written_ += taken;
  return taken;
}

void StderrSink::finish(std::chrono::milliseconds longest) {
  const auto end = std::chrono::steady_clock::now() + longest;
  while (!pace() && outlet_.full()) {
    const auto left = end - std::chrono::steady_clock::now();
    if (left <= left.zero()) return;
    outlet_.wait(std::chrono::ceil<std::chrono::milliseconds>(left));
  }
}

}  // namespace pelorus::log
