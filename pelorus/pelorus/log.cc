#include "pelorus/pelorus/log.h"

#include <cxxabi.h>
#include <unistd.h>

#include <array>
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

/// Bytes of the printable character that `text` begins with: 1 for ASCII, 2 to 4 for well-formed
/// UTF-8, 0 where the first byte has to be escaped.
std::size_t printable_length(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7F ? 1 : 0;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  // What the second byte may be: no C1 control, overlong form, surrogate or too large a number.
  const unsigned char least = lead == 0xC2 || lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byte(1) < least || byte(1) > most) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return 0;
  }
  return length;
}

std::string escaped(char byte) {
  if (byte == '\t') return "\\t";
  if (byte == '\n') return "\\n";
  if (byte == '\r') return "\\r";
  return fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
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

void set_sink(std::shared_ptr<spdlog::sinks::sink> sink) { logger().sinks() = {std::move(sink)}; }

void write(spdlog::level::level_enum level, fmt::string_view text, fmt::format_args arguments) {
  if (!logger().should_log(level)) return;
  fmt::memory_buffer line;
  fmt::vformat_to(fmt::appender(line), text, arguments);
  logger().log(level, spdlog::string_view_t(line.data(), line.size()));
}

void exception(std::string_view text, const std::exception& failure) {
  error("{}", text);
  for (const std::string& line : trace_lines(failure)) error("{}", line);
}

std::vector<std::string> trace_lines(const std::exception& failure) {
  const auto* traced = dynamic_cast<const skein::Failure*>(&failure);
  const skein::Trace trace = traced != nullptr ? traced->trace() : skein::Trace::here();
  std::vector<std::string> lines{fmt::format("{}: {}", kind_of(failure), failure.what())};
  for (const std::string& frame : trace.lines()) lines.push_back("    " + frame);
  return lines;
}

std::string escape_controls(std::string_view text) {
  std::string escaped_text;
  escaped_text.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = printable_length(text);
    if (length > 0) {
      escaped_text += text.substr(0, length);
    } else {
      escaped_text += escaped(text[0]);
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return escaped_text;
}

}  // namespace pelorus::log
