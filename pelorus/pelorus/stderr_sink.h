#pragma once

#include <spdlog/sinks/sink.h>

#include <memory>
#include <string>

namespace pelorus::log {

/// Writes each record as one line, control bytes escaped, with one write(2). A line that cannot be
/// written is lost: no failure to write ever reaches who logs.
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
};

}  // namespace pelorus::log
