#pragma once

#include <string>
#include <vector>

#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/log_writer.h"

namespace support {

/// Collects what the daemon logs for as long as it lives, every level included. One at a time.
class LogCapture {
 public:
  struct Line {
    std::string level;  ///< "debug", "info", "warning", "error"
    std::string text;
  };

  LogCapture() {
    pelorus::log::set_capture([this](pelorus::log::Level level, std::string_view line) {
      lines_.push_back({std::string(pelorus::log::name_of(level)), std::string(line)});
    });
    pelorus::log::set_level(pelorus::log::Level::DEBUG);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() {
    pelorus::log::set_capture([](auto, auto) {});
  }

  const std::vector<Line>& lines() const { return lines_; }
  /// Texts of one level, in order.
  std::vector<std::string> texts(const std::string& level) const {
    std::vector<std::string> texts;
    for (const Line& line : lines_) {
      if (line.level == level) texts.push_back(line.text);
    }
    return texts;
  }
  void clear() { lines_.clear(); }

 private:
  std::vector<Line> lines_;
};

}  // namespace support
