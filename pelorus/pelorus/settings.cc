#include "pelorus/pelorus/settings.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>

#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/process.h"

// The parser's own messages quote what it read last, which may be a credential: none is passed on.
namespace pelorus {
namespace {

using nlohmann::json;

constexpr const char* DEFAULT_SOURCE = "/etc/pelorus/settings.json";

/// Whole content of a regular file: a FIFO would keep the reader waiting. Throws SettingsError.
std::string content_of(const std::string& path) {
  const auto fail = [&path](int error) -> SettingsError {
    return SettingsError(fmt::format("Cannot read the settings in {}: {}", path,
                                     std::generic_category().message(error)));
  };
  // Not opened by fopen(), which waits for the other end of a FIFO.
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) throw fail(errno);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(::fdopen(descriptor, "r"),
                                                             std::fclose);
  struct stat status {};
  if (!file || ::fstat(descriptor, &status) != 0) throw fail(errno);
  if (!S_ISREG(status.st_mode)) {
    throw SettingsError(fmt::format("Cannot read the settings in {}: not a regular file", path));
  }
  std::string content;
  std::array<char, 4096> piece{};
  while (const auto count = std::fread(piece.data(), 1, piece.size(), file.get())) {
    content.append(piece.data(), count);
  }
  if (std::ferror(file.get()) != 0) throw fail(errno);
  return content;
}

/// "line 3, column 14 (byte 60)", all counted from 1; `byte` is the one where reading stopped.
std::string position(std::string_view text, std::size_t byte) {
  const std::string_view before = text.substr(0, byte == 0 ? 0 : byte - 1);
  const auto lines = std::count(before.begin(), before.end(), '\n');
  const auto line_start = before.rfind('\n') + 1;  // npos + 1 is 0: the first line
  return fmt::format("line {}, column {} (byte {})", lines + 1, before.size() - line_start + 1,
                     byte);
}

}  // namespace

Settings::Settings(std::shared_ptr<const json> values, std::string source)
    : values_(std::move(values)), source_(std::move(source)) {}

Settings Settings::load() {
  const char* path = std::getenv("PELORUS_SETTINGS");
  return from_file(path != nullptr && *path != '\0' ? path : DEFAULT_SOURCE);
}

Settings Settings::from_file(const std::string& path) { return from_text(content_of(path), path); }

Settings Settings::from_text(std::string_view json_text, std::string source) {
  json values;
  try {
    values = json::parse(json_text);
  } catch (const json::parse_error& failure) {
    throw SettingsError(fmt::format("The settings in {} are no valid JSON: {}", source,
                                    position(json_text, failure.byte)));
  } catch (const json::exception&) {
    throw SettingsError(fmt::format("The settings in {} hold a number out of range", source));
  }
  if (!values.is_object()) {
    throw SettingsError(fmt::format("The settings in {} are no JSON object", source));
  }
  return Settings(std::make_shared<const json>(std::move(values)), std::move(source));
}

bool Settings::contains(std::string_view key) const { return values_->contains(key); }

const json& Settings::value(std::string_view key) const {
  const auto found = values_->find(key);
  if (found != values_->end()) return *found;
  throw SettingsError(fmt::format("Setting {} is missing in {}", key, source_));
}

void Settings::refuse(std::string_view key, std::string_view demand) const {
  throw SettingsError(fmt::format("Setting {} in {} must be {}", key, source_, demand));
}

template <>
std::int64_t Settings::get(std::string_view key) const {
  constexpr auto MAXIMUM = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  const json& found = value(key);
  const bool too_large = found.is_number_unsigned() && found.get<std::uint64_t>() > MAXIMUM;
  if (!found.is_number_integer() || too_large) refuse(key, "an integer");
  return found.get<std::int64_t>();
}

template <>
double Settings::get(std::string_view key) const {
  const json& found = value(key);
  if (!found.is_number()) refuse(key, "a number");
  return found.get<double>();
}

template <>
std::string Settings::get(std::string_view key) const {
  const json& found = value(key);
  if (!found.is_string()) refuse(key, "text");
  return found.get<std::string>();
}

template <>
std::vector<std::string> Settings::get(std::string_view key) const {
  constexpr std::string_view DEMAND = "a list of maps that have a text under \"name\"";
  const json& found = value(key);
  if (!found.is_array()) refuse(key, DEMAND);
  std::vector<std::string> names;
  for (const json& entry : found) {
    const auto name = entry.find("name");  // the end if the entry is no map
    if (name == entry.end() || !name->is_string()) refuse(key, DEMAND);
    names.push_back(name->get<std::string>());
  }
  return names;
}

// The settings that are read together while the daemon loads, and what makes a value senseless.
namespace {

constexpr std::uint16_t HTTP_PORT = 80;

std::size_t read_count(const Settings& settings, std::string_view key, std::int64_t least) {
  const auto count = settings.get<std::int64_t>(key);
  if (count < least) settings.refuse(key, fmt::format("{} or more", least));
  return static_cast<std::size_t>(count);
}

double read_seconds(const Settings& settings, std::string_view key) {
  const auto seconds = settings.get<double>(key);
  if (!std::isfinite(seconds) || seconds < 0) settings.refuse(key, "0 or more seconds");
  return seconds;
}

/// Text that goes into a request head: a blank or a control byte would cut the head there.
std::string read_header_value(const Settings& settings, std::string_view key) {
  auto value = settings.get<std::string>(key);
  const bool visible =
      std::all_of(value.begin(), value.end(), [](char byte) { return byte > ' ' && byte <= '~'; });
  if (value.empty() || !visible) settings.refuse(key, "visible ASCII characters");
  return value;
}

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
std::optional<std::pair<std::string, std::uint16_t>> parse_endpoint(std::string_view text) {
  const bool bracketed = text.starts_with('[');
  const auto host_end = text.find(bracketed ? ']' : ':');
  if (bracketed && host_end == text.npos) return std::nullopt;
  const auto port = parse_port(text.substr(std::min(host_end + (bracketed ? 1 : 0), text.size())));
  const std::string host(bracketed ? text.substr(1, host_end - 1) : text.substr(0, host_end));
  if (!port || !(bracketed ? is_ipv6_address(host) : is_host_name(host))) return std::nullopt;
  return std::pair(host, *port);
}

/// Runs `step`. With `faults`, adds its SettingsError there.
template <class Step>
void collect(std::vector<std::string>* faults, Step&& step) {
  try {
    step();
  } catch (const SettingsError& fault) {
    if (faults == nullptr) throw;
    faults->emplace_back(fault.what());
  }
}

}  // namespace

BufferSettings BufferSettings::read(const Settings& settings, std::vector<std::string>* faults) {
  BufferSettings buffer;
  const auto count = [&](std::size_t& value, std::string_view key, std::int64_t least) {
    collect(faults, [&] { value = read_count(settings, key, least); });
  };
  count(buffer.max_pending_messages, "PELORUS_MAX_PENDING_MESSAGES", 1);
  collect(faults, [&] { buffer.max_buffer_time = read_seconds(settings, "PELORUS_BUFFER_TIME"); });
  count(buffer.ideal_queued_messages, "PELORUS_IDEAL_QUEUED_MESSAGES", 0);
  count(buffer.max_batch_size, "PELORUS_MAX_BATCH_SIZE", 1);
  count(buffer.discard_size, "PELORUS_DISCARD_SIZE", 1);
  if (settings.contains("PELORUS_MAX_QUEUED_BYTES")) {
    count(buffer.max_queued_bytes, "PELORUS_MAX_QUEUED_BYTES", 1);
  } else {
    buffer.max_queued_bytes = usable_memory() / 2;
  }
  return buffer;
}

InfluxConnection InfluxConnection::read(const Settings& settings,
                                        std::vector<std::string>* faults) {
  constexpr std::string_view CONNECTION = "INFLUX_HTTP_CONNECTION";
  InfluxConnection connection;
  collect(faults, [&] { connection.auth = read_header_value(settings, "INFLUX_AUTH"); });
  collect(faults, [&] {
    connection.http_connection = read_header_value(settings, CONNECTION);
    const auto endpoint = parse_endpoint(connection.http_connection);
    if (!endpoint) settings.refuse(CONNECTION, "host, host:port, [v6] or [v6]:port");
    std::tie(connection.host, connection.port) = *endpoint;
  });
  return connection;
}

}  // namespace pelorus
