#include "pelorus/pelorus/influx/influx_http_request.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <exception>
#include <utility>

#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/secret_text.h"
#include "skein/profile_scope.h"
#include "skein/text.h"

namespace pelorus {
namespace {

/// Most bytes of a response that are shown.
constexpr std::size_t EXCERPT_BYTES = 256;
/// Shorter passwords are not searched for: they occur in many responses by chance.
constexpr std::size_t SHORTEST_PASSWORD = 4;

// When InfluxDB has stored only a part of a batch, its response says so, and how many points it
// dropped:
//
//     {"error":"partial write: field type conflict: … dropped=16"}
//     {"error":"partial write: unable to parse 'm value=': missing field value dropped=0"}

/// Whether the response says that. Lines that InfluxDB cannot parse are quoted, and a batch of
/// which no line can be parsed is refused as a whole: text after "unable to parse" does not count.
bool is_partial_write(std::string_view body) {
  const std::string_view unquoted = body.substr(0, body.find("unable to parse"));
  return unquoted.find("partial write") != unquoted.npos;
}

/// The number of dropped points. None for "dropped=0": lines that InfluxDB cannot parse are not in
/// its number.
std::optional<std::uint64_t> dropped_points(std::string_view body) {
  constexpr std::string_view DROPPED = "dropped=";
  const std::string_view number = body.substr(std::min(body.rfind(DROPPED), body.size()));
  std::uint64_t points = 0;
  if (!number.empty()) {
    std::from_chars(number.data() + DROPPED.size(), number.data() + number.size(), points);
  }
  return points != 0 ? std::optional(points) : std::nullopt;
}

}  // namespace

InfluxHTTPRequest::InfluxHTTPRequest(std::string database_name, InfluxDatabase& database,
                                     const InfluxConnection& connection, skein::Loop& loop)
    : database_name_(std::move(database_name)),
      database_(database),
      connection_(connection),
      loop_(loop),
      exchange_(connection.host, connection.port, loop, *this) {}

std::string InfluxHTTPRequest::get_headers() const {
  // Kept: the name goes out as it stands, without percent-encoding. The databases are named by the
  // administration application, and the endpoint knows them by these very bytes.
  return "POST /write?db=" + database_name_ + " HTTP/1.1\r\nAuthorization: Basic " +
         connection_.auth + "\r\nHost: " + connection_.http_connection;
}

std::string_view InfluxHTTPRequest::send_request() {
  PROFILE_SCOPE();
  send_buf_ = get_headers();  // before the batch is taken: if it fails, no message is lost
  batch_ = database_.get_data();
  data_length_ = batch_.data_length();
  send_buf_ += "\r\nContent-Length: " + std::to_string(*data_length_) + "\r\n\r\n";
  send_buf_.reserve(send_buf_.size() +
                    std::min(*data_length_, HTTPExchange::SEND_BYTES_PER_ITERATION));
  batch_.append_slice(send_buf_, HTTPExchange::SEND_BYTES_PER_ITERATION);
  return send_buf_;
}

std::string_view InfluxHTTPRequest::next_slice() {
  PROFILE_SCOPE();
  send_buf_.clear();
  batch_.append_slice(send_buf_, HTTPExchange::SEND_BYTES_PER_ITERATION);
  return send_buf_;
}

void InfluxHTTPRequest::handle_end() noexcept {
  PROFILE_SCOPE();
  const HTTPResponse& response = exchange_.response();
  loop_.guarded([&] {
    if (!exchange_.connected()) return;  // handle_close() makes it a failure
    if (!response.complete()) {
      handle_failure(std::nullopt);
    } else if (response.status() == success_code) {
      handle_success(response.body());
    } else {
      handle_failure(response.body());
    }
  });
  loop_.guarded([this] { handle_close(); });
  batch_.clear();
}

void InfluxHTTPRequest::handle_success(std::string_view) { database_.handle_success(); }

void InfluxHTTPRequest::handle_failure(std::optional<std::string_view> data) {
  const bool partial = data && is_partial_write(*data);
  const auto points = partial ? dropped_points(*data) : std::nullopt;
  partial ? database_.handle_partial_write(points) : database_.handle_failure();
  const std::string text = failure_text(data);
  database_.note_failure(text);
  const std::size_t messages = batch_.messages();
  if (partial) {
    log::warning(
        "InfluxDB write ({} database) stored in part: {}; dropped points: {}, of {} messages ({} "
        "bytes)",
        database_name_, text, points ? std::to_string(*points) : "unknown", messages,
        data_length_.value_or(0));
  } else if (messages != 0) {
    log::warning("InfluxDB write ({} database) failed: {}; {} messages lost ({} bytes)",
                 database_name_, text, messages, data_length_.value_or(0));
  } else if (const auto left_out = database_.pass_idle_failure()) {
    log::warning("InfluxDB write ({} database) failed: {}; nothing lost{}", database_name_, text,
                 *left_out == 0 ? "" : fmt::format(" ({} times more before)", *left_out));
  }
}

void InfluxHTTPRequest::handle_close() {
  database_.handle_close();
  if (!exchange_.connected()) handle_failure(std::nullopt);
}

/// "status 400: b'…'", "could not connect to …". No secret in it.
std::string InfluxHTTPRequest::failure_text(std::optional<std::string_view> data) const {
  if (!exchange_.connected()) {
    return "could not connect to " + connection_.http_connection + ": " + exchange_.error();
  }
  std::string text = exchange_.error();
  if (const int status = exchange_.response().status(); status != 0) {
    text = "status " + std::to_string(status) + (text.empty() ? "" : ", ") + text;
  }
  return text + excerpt(data);
}

/// The first bytes of what was received: of the body, else of the line that made no sense. Some
/// servers repeat the request that they refuse; what repeats the credentials is not shown.
std::string InfluxHTTPRequest::excerpt(std::optional<std::string_view> data) const {
  std::string_view text = data.value_or(exchange_.response().body());
  if (text.empty()) text = exchange_.response().line();
  if (text.empty()) return "";
  if (repeats_credentials(text)) return ": an answer that repeats the credentials";
  return ": " + skein::display(text.substr(0, EXCERPT_BYTES));
}

/// Whether the excerpt holds the credentials, encoded or decoded, or breaks off in them.
bool InfluxHTTPRequest::repeats_credentials(std::string_view text) const {
  const std::string pair = base64_decoded(connection_.auth);
  const std::string password = pair.substr(pair.find(':') + 1);
  for (const std::string& secret : {connection_.auth, pair, password}) {
    if (secret.size() < SHORTEST_PASSWORD) continue;
    const auto shown = text.substr(0, EXCERPT_BYTES + LONGEST_SPELLING * secret.size());
    if (repeats(shown, secret) || breaks_off_in(shown, secret)) return true;
  }
  return false;
}

}  // namespace pelorus
