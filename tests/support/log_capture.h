#pragma once

#include <spdlog/sinks/base_sink.h>

#include <memory>
#include <string>
#include <vector>

namespace support {

/// Collects what the daemon logs for as long as it lives, every level included.
class LogCapture {
 public:
  struct Line {
    std::string level;  ///< "debug", "info", "warning", "error"
    std::string text;
    bool operator==(const Line&) const = default;
  };

  LogCapture();
  ~LogCapture();

  std::vector<Line> lines() const;
  /// Texts of one level, in order.
  std::vector<std::string> texts(const std::string& level) const;
  void clear();

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;  // shared with the logger
};

}  // namespace support
