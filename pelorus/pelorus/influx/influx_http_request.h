#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "pelorus/pelorus/influx/http_request.h"

namespace pelorus {

class InfluxDatabase;

/// One write of one batch: a POST to InfluxDB's write endpoint. The batch is pulled from the buffer
/// only when the connection stands, so messages can still join it until then.
/// Reports its outcome to the buffer, which is borrowed and outlives every run of the loop.
class InfluxHTTPRequest : public HTTPRequest {
 public:
  /// The status with which InfluxDB acknowledges a good write.
  static constexpr int success_code = 204;

  InfluxHTTPRequest(std::string database_name, InfluxDatabase& database,
                    const InfluxConnection& connection, skein::Loop& loop);

  /// The head without its Content-Length and without the end of its last line. Holds the secret.
  std::string get_headers() const;

 private:
  void send_request() override;
  void handle_success(std::string_view body) override;
  void handle_failure(std::optional<std::string_view> data) override;
  void handle_close() override;

  InfluxDatabase& database_;
};

}  // namespace pelorus
