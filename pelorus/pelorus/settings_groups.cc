#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/settings.h"

// The settings that are read together while the daemon loads, with what makes each senseless.
namespace pelorus {
namespace {

constexpr std::uint16_t HTTP_PORT = 80;

[[noreturn]] void refuse(const Settings& settings, std::string_view key, std::string_view demand) {
  throw SettingsError(fmt::format("Setting {} in {} must be {}", key, settings.source(), demand));
}

std::size_t read_count(const Settings& settings, std::string_view key, std::int64_t least) {
  const auto count = settings.get<std::int64_t>(key);
  if (count < least) refuse(settings, key, fmt::format("{} or more", least));
  return static_cast<std::size_t>(count);
}

double read_seconds(const Settings& settings, std::string_view key) {
  const auto seconds = settings.get<double>(key);
  if (!std::isfinite(seconds) || seconds < 0) refuse(settings, key, "0 or more seconds");
  return seconds;
}

/// Text that goes into a request head: a blank or a control byte would cut the head there.
std::string read_header_value(const Settings& settings, std::string_view key) {
  auto value = settings.get<std::string>(key);
  const bool visible =
      std::all_of(value.begin(), value.end(), [](char byte) { return byte > ' ' && byte <= '~'; });
  if (value.empty() || !visible) refuse(settings, key, "visible ASCII characters");
  return value;
}

struct Endpoint {
  std::string host;
  std::uint16_t port = HTTP_PORT;
};

/// ":8086"; nothing at all means the default port.
std::optional<std::uint16_t> parse_port(std::string_view text) {
  if (text.empty()) return HTTP_PORT;
  std::uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data() + 1, end, port);
  const bool whole = text[0] == ':' && result.ec == std::errc() && result.ptr == end;
  return whole && port != 0 ? std::optional(port) : std::nullopt;
}

bool is_host_name(std::string_view host) {
  return !host.empty() && host.find_first_of("/?#@[]:") == host.npos;
}

bool is_ipv6_address(const std::string& host) {
  in6_addr address{};
  return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

/// "host", "host:port", "[v6]" or "[v6]:port"; none for anything else.
std::optional<Endpoint> parse_endpoint(std::string_view text) {
  const bool bracketed = text.starts_with('[');
  const auto host_end = text.find(bracketed ? ']' : ':');
  if (bracketed && host_end == text.npos) return std::nullopt;
  const auto port = parse_port(text.substr(std::min(host_end + (bracketed ? 1 : 0), text.size())));
  const std::string host(bracketed ? text.substr(1, host_end - 1) : text.substr(0, host_end));
  if (!port || !(bracketed ? is_ipv6_address(host) : is_host_name(host))) return std::nullopt;
  return Endpoint{host, *port};
}

}  // namespace

BufferSettings BufferSettings::read(const Settings& settings) {
  BufferSettings buffer;
  buffer.max_pending_messages = read_count(settings, "PELORUS_MAX_PENDING_MESSAGES", 1);
  buffer.max_buffer_time = read_seconds(settings, "PELORUS_BUFFER_TIME");
  buffer.ideal_queued_messages = read_count(settings, "PELORUS_IDEAL_QUEUED_MESSAGES", 0);
  buffer.max_batch_size = read_count(settings, "PELORUS_MAX_BATCH_SIZE", 1);
  buffer.discard_size = read_count(settings, "PELORUS_DISCARD_SIZE", 1);
  return buffer;
}

InfluxConnection InfluxConnection::read(const Settings& settings) {
  constexpr std::string_view CONNECTION = "INFLUX_HTTP_CONNECTION";
  InfluxConnection connection;
  connection.auth = read_header_value(settings, "INFLUX_AUTH");
  connection.http_connection = read_header_value(settings, CONNECTION);
  const auto endpoint = parse_endpoint(connection.http_connection);
  if (!endpoint) refuse(settings, CONNECTION, "host, host:port, [v6] or [v6]:port");
  connection.host = endpoint->host;
  connection.port = endpoint->port;
  return connection;
}

}  // namespace pelorus
