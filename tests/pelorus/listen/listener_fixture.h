#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/settings.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/skein_peer.h"

namespace pelorus {

/// What a listener stands on: a loop that the test turns, and a handler whose buffers keep all.
class ListenerTest : public ::testing::Test {
 protected:
  ListenerTest() : folder_(make_folder()) {}
  ~ListenerTest() override { std::filesystem::remove_all(folder_); }

  static std::filesystem::path make_folder() {
    std::string pattern = std::filesystem::temp_directory_path() / "pelorus-test-XXXXXX";
    return ::mkdtemp(pattern.data());
  }

  Settings settings(const std::string& socket_path) const {
    return Settings::from_text(
        fmt::format(R"({{"INFLUX_UNIX_SOCKET": "{}", "PELORUS_SERVER": "127.0.0.1",
                        "PELORUS_PORT": 0, "LOCAL_WWW_KEY": "token"}})",
                    socket_path),
        "test");
  }
  std::string socket_path() const { return folder_ / "collectd.sock"; }

  void turns(int count = 5) {
    for (int i = 0; i < count; ++i) {
      clock_.tick(0.001);
      loop_.turn();
    }
  }

  /// What is queued for the database, which is taken.
  std::string queued(std::string_view name) {
    for (const auto& database : handler_.databases()) {
      if (database->name() == name) return database->get_data();
    }
    return "no such database";
  }

  bool logged(const std::string& level, const std::string& text) const {
    for (const auto& line : log_.texts(level)) {
      if (line == text) return true;
    }
    return false;
  }

  std::filesystem::path folder_;
  support::LogCapture log_;
  support::FakeClock clock_;
  skein::Loop loop_{clock_.clocks()};
  BufferSettings buffer_settings_{.max_pending_messages = 100'000,
                                  .max_buffer_time = 1e9,
                                  .ideal_queued_messages = 100'000,
                                  .max_batch_size = 100'000,
                                  .discard_size = 1};
  InfluxConnection connection_{
      .auth = "YTpi", .http_connection = "127.0.0.1:1", .host = "127.0.0.1", .port = 1};
  std::vector<std::string> names_{"tidewell", "bonding"};
  InfluxHandler handler_{names_,
                         [this](const std::string& name) {
                           return std::make_unique<InfluxDatabase>(name, buffer_settings_,
                                                                   connection_, loop_);
                         },
                         loop_, 1U << 20};
};

}  // namespace pelorus
