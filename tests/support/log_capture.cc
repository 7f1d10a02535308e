#include "support/log_capture.h"

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/null_sink.h>

#include "pelorus/pelorus/log.h"

namespace support {

class LogCapture::Sink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  std::vector<Line> lines;

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const auto level = spdlog::level::to_string_view(message.level);
    lines.push_back({std::string(level.data(), level.size()),
                     std::string(message.payload.data(), message.payload.size())});
  }
  void flush_() override {}
};

LogCapture::LogCapture() : sink_(std::make_shared<Sink>()) {
  pelorus::log::set_sink(sink_);
  pelorus::log::logger().set_level(spdlog::level::debug);
}

LogCapture::~LogCapture() {
  pelorus::log::set_sink(std::make_shared<spdlog::sinks::null_sink_st>());
}

std::vector<LogCapture::Line> LogCapture::lines() const { return sink_->lines; }

std::vector<std::string> LogCapture::texts(const std::string& level) const {
  std::vector<std::string> texts;
  for (const Line& line : sink_->lines) {
    if (line.level == level) texts.push_back(line.text);
  }
  return texts;
}

void LogCapture::clear() { sink_->lines.clear(); }

}  // namespace support
