#include "support/log_capture.h"

#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/log_writer.h"

namespace support {

namespace log = pelorus::log;

LogCapture::LogCapture() {
  log::set_capture([this](log::Level level, std::string_view line) {
    lines_.push_back({std::string(log::name_of(level)), std::string(line)});
  });
  log::set_level(log::Level::DEBUG);
}

LogCapture::~LogCapture() {
  log::set_capture([](auto, auto) {});
}

std::vector<std::string> LogCapture::texts(const std::string& level) const {
  std::vector<std::string> texts;
  for (const Line& line : lines_) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

}  // namespace support
