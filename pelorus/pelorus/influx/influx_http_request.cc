#include "pelorus/pelorus/influx/influx_http_request.h"

#include <utility>

#include "pelorus/pelorus/influx/influx_database.h"

namespace pelorus {

InfluxHTTPRequest::InfluxHTTPRequest(std::string database_name, InfluxDatabase& database,
                                     const InfluxConnection& connection, skein::Loop& loop)
    : HTTPRequest(std::move(database_name), connection, success_code, loop), database_(database) {}

std::string InfluxHTTPRequest::get_headers() const {
  // Kept: the name goes out as it stands, without percent-encoding. The databases are named by the
  // administration application, and the endpoint knows them by these very bytes.
  return "POST /write?db=" + database_name_ + " HTTP/1.1\r\nAuthorization: Basic " +
         connection_.auth + "\r\nHost: " + connection_.http_connection;
}

void InfluxHTTPRequest::send_request() {
  const std::string headers = get_headers();  // before the batch: a failure loses nothing
  batch_ = database_.take_batch();
  messages_ = batch_.size();
  data_length_ = joined_bytes(database_.counters().in_flight);  // this batch: one write at a time
  send_buf_ = headers + "\r\nContent-Length: " + std::to_string(*data_length_) + "\r\n\r\n";
}

void InfluxHTTPRequest::handle_success(std::string_view) { database_.handle_success(); }

void InfluxHTTPRequest::handle_failure(std::optional<std::string_view> data) {
  database_.handle_failure();
  database_.note_failure(failure_text(data), data);
  HTTPRequest::handle_failure(data);
}

void InfluxHTTPRequest::handle_close() {
  database_.handle_close();
  if (!connected()) handle_failure(std::nullopt);
  HTTPRequest::handle_close();
}

}  // namespace pelorus
