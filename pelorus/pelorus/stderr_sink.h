#pragma once

#include <spdlog/sinks/sink.h>

#include <cstdint>
#include <memory>
#include <string>

namespace pelorus::log {

/// Writes each record as one line, control bytes escaped. A line that cannot be written is lost: no
/// failure to write ever reaches who logs, and a reader that has stopped is waited for once, for a
/// twentieth of a second. The next line that gets out says how many were dropped.
class StderrSink : public spdlog::sinks::sink {
 public:
  /// What a line begins with.
  enum class Prefix {
    TIME,     ///< local time in milliseconds, then the level
    PRIORITY  ///< "<N>" of the system log, which the journal takes off again
  };

  /// The descriptor stays the caller's.
  StderrSink(int descriptor, Prefix prefix) : descriptor_(descriptor), prefix_(prefix) {}

  void log(const spdlog::details::log_msg& message) override;
  void flush() override {}
  /// The form of a line is settled: this does nothing, and neither does set_formatter().
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

 private:
  int descriptor_;
  Prefix prefix_;
  std::uint64_t dropped_ = 0;  ///< lines since the last one that got out
};

}  // namespace pelorus::log
