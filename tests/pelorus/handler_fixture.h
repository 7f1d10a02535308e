#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/ingest/influx_handler.h"
#include "support/ledger.h"
#include "support/log_capture.h"
#include "support/loop_test.h"

namespace pelorus {

/// A handler whose buffers never find a reason to send, on a loop that the test runs.
class HandlerTest : public support::LoopTest {
 protected:
  explicit HandlerTest(std::size_t output_bytes = 1U << 20) : output_bytes_(output_bytes) {}

  InfluxHandler make_handler(const std::vector<std::string>& names) {
    const auto buffer = [this](const std::string& name) {
      return std::make_unique<InfluxDatabase>(name, buffer_settings_, connection_, loop_);
    };
    return {names, buffer, loop_, output_bytes_};
  }
  InfluxDatabase& database(std::string_view name) {
    for (const auto& each : handler_.databases()) {
      if (each->name() == name) return *each;
    }
    throw std::out_of_range("no such database");
  }
  /// What is queued for the database, which is taken.
  std::string queued(std::string_view name) { return support::body_of(database(name).get_data()); }

  std::size_t output_bytes_;
  support::LogCapture log_;
  BufferSettings buffer_settings_{.max_pending_messages = 100'000,
                                  .max_buffer_time = 1e9,
                                  .ideal_queued_messages = 100'000,
                                  .max_batch_size = 100'000,
                                  .discard_size = 1};
  InfluxConnection connection_{
      .auth = "YTpi", .http_connection = "127.0.0.1:1", .host = "127.0.0.1", .port = 1};
  InfluxHandler handler_ = make_handler({"tidewell", "bonding", "tidewell"});
};

}  // namespace pelorus
