#pragma once

#include <string>
#include <vector>

namespace support {

/// Collects what the daemon logs for as long as it lives, every level included. One at a time.
class LogCapture {
 public:
  struct Line {
    std::string level;  ///< "debug", "info", "warning", "error"
    std::string text;
    bool operator==(const Line&) const = default;
  };

  LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  const std::vector<Line>& lines() const { return lines_; }
  /// Texts of one level, in order.
  std::vector<std::string> texts(const std::string& level) const;
  void clear() { lines_.clear(); }

 private:
  std::vector<Line> lines_;
};

}  // namespace support
