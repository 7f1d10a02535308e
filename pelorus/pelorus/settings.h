#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace pelorus {

/// The settings of the administration application: one JSON object, read once when the daemon
/// loads. Values are checked each time they are read.
class Settings {
 public:
  /// Reads the file that PELORUS_SETTINGS names, by default /etc/pelorus/settings.json.
  /// Throws SettingsError: not readable, no JSON, no object.
  static Settings load();
  static Settings from_file(const std::string& path);
  /// `source` stands for the file in messages.
  static Settings from_text(std::string_view json, std::string source);

  /// The value under `key`, typed: std::int64_t (a JSON integer), double (any JSON number),
  /// std::string, or std::vector<std::string> (the texts under "name" in a list of maps; what else
  /// stands in the maps is not the daemon's).
  /// Throws SettingsError, which names key and source, if the value is missing or of another type.
  /// Booleans are not numbers.
  template <class T>
  T get(std::string_view key) const;

  bool contains(std::string_view key) const;

  const std::string& source() const noexcept { return source_; }

  /// Throws SettingsError: "Setting KEY in SOURCE must be DEMAND".
  [[noreturn]] void refuse(std::string_view key, std::string_view demand) const;

 private:
  Settings(std::shared_ptr<const nlohmann::json> values, std::string source);
  const nlohmann::json& value(std::string_view key) const;

  std::shared_ptr<const nlohmann::json> values_;  // shared by copies, never changes
  std::string source_;
};

template <>
std::int64_t Settings::get(std::string_view key) const;
template <>
double Settings::get(std::string_view key) const;
template <>
std::string Settings::get(std::string_view key) const;
template <>
std::vector<std::string> Settings::get(std::string_view key) const;

/// The values that all write buffers share. Counts are in messages.
struct BufferSettings {
  std::size_t max_pending_messages = 0;   ///< queue length at which the oldest are dropped
  double max_buffer_time = 0;             ///< seconds since a success after which any queue is sent
  std::size_t ideal_queued_messages = 0;  ///< queue length at which a batch is sent immediately
  std::size_t max_batch_size = 0;         ///< most messages of one write
  std::size_t discard_size = 0;           ///< oldest messages dropped at once
  double check_for_process_data_time = 1;  ///< seconds until the buffer decides again
  /// Bytes of all queues together; above them the oldest messages of the largest are dropped.
  std::size_t max_queued_bytes = SIZE_MAX;

  /// Reads PELORUS_MAX_PENDING_MESSAGES, PELORUS_BUFFER_TIME, PELORUS_IDEAL_QUEUED_MESSAGES,
  /// PELORUS_MAX_BATCH_SIZE and PELORUS_DISCARD_SIZE, in this order, then
  /// PELORUS_MAX_QUEUED_BYTES if it is there; without it, half of the memory that the process may
  /// use. Throws SettingsError, also for pending, batch or discard below 1, and for an ideal length
  /// or time that is negative or not finite. With `faults`, adds the text of each fault there
  /// instead.
  static BufferSettings read(const Settings& settings, std::vector<std::string>* faults = nullptr);
};

/// InfluxDB's address and account: the two values of the InfluxDB module of the administration
/// application.
struct InfluxConnection {
  std::string auth;             ///< INFLUX_AUTH: Base64 text, sent as it stands. Secret.
  std::string http_connection;  ///< INFLUX_HTTP_CONNECTION: value of the Host header
  std::string host;             ///< of http_connection, without the brackets of an IPv6 address
  std::uint16_t port = 80;

  /// Throws SettingsError: missing, or no host, host:port, [v6] or [v6]:port. With `faults`, adds
  /// the text of each fault there instead.
  static InfluxConnection read(const Settings& settings,
                               std::vector<std::string>* faults = nullptr);
};

}  // namespace pelorus
