#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "pelorus/pelorus/influx/http_exchange.h"
#include "pelorus/pelorus/influx/influx_database.h"

namespace pelorus {

/// One write of one batch: a POST to InfluxDB's write endpoint. Takes its batch from the database
/// only when the connection is established, so that messages can join it until then. Owned by its
/// database, to which it reports.
///
/// The database hears of the outcome and then, in the same callback, of the close:
///
///   response with success_code   handle_success, handle_close
///   another response, or none    handle_failure, handle_close
///   no connection                handle_close, handle_failure
///
/// An exception from one of these is reported to the loop and does not keep the others from
/// running.
class InfluxHTTPRequest : public InfluxDatabase::Request, private HTTPExchange::Owner {
 public:
  /// The status with which InfluxDB acknowledges a good write.
  static constexpr int success_code = 204;

  /// Borrows the connection's settings and the loop.
  InfluxHTTPRequest(std::string database_name, InfluxDatabase& database,
                    const InfluxConnection& connection, skein::Loop& loop);

  /// The head without its Content-Length and without the end of its last line. Holds the secret.
  std::string get_headers() const;
  std::uint64_t memory() const noexcept override { return batch_.memory(); }

 private:
  std::string_view send_request() override;
  std::string_view next_slice() override;
  void handle_end() noexcept override;

  void handle_success(std::string_view body);
  /// `data`: the body of a whole response with another status; none when no whole response came.
  void handle_failure(std::optional<std::string_view> data);
  void handle_close();

  std::string failure_text(std::optional<std::string_view> data) const;
  std::string excerpt(std::optional<std::string_view> data) const;
  bool repeats_credentials(std::string_view text) const;

  const std::string database_name_;
  InfluxDatabase& database_;
  const InfluxConnection& connection_;  ///< its auth is a secret and never logged
  skein::Loop& loop_;
  Batch batch_;                             ///< what send_buf_ does not hold yet
  std::optional<std::size_t> data_length_;  ///< bytes of the body; none until get_data()
  std::string send_buf_;                    ///< the present slice: first the head, then the body
  HTTPExchange exchange_;
};

}  // namespace pelorus
