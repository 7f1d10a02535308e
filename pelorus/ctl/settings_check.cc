#include "pelorus/ctl/settings_check.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>

#include "pelorus/ctl/human.h"
#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/errors.h"

namespace pelorus::ctl {
namespace {

/// What InfluxDB takes in one request unless it is told otherwise.
constexpr double INFLUX_BODY_LIMIT = 25e6;  // bytes

class Check {
 public:
  Check(const Settings& settings, double message_bytes)
      : settings_(settings), message_bytes_(message_bytes) {}

  Findings run() {
    buffers();
    databases();
    local_socket();
    influx_connection();
    node_server();
    web_key();
    return std::move(findings_);
  }

 private:
  template <class... Args>
  void error(fmt::format_string<Args...> text, Args&&... args) {
    findings_.errors.push_back(fmt::format(text, std::forward<Args>(args)...));
  }
  template <class... Args>
  void warn(fmt::format_string<Args...> text, Args&&... args) {
    findings_.warnings.push_back(fmt::format(text, std::forward<Args>(args)...));
  }
  /// Whether it went without a SettingsError, which is noted.
  template <class Step>
  bool attempt(Step&& step) {
    try {
      step();
      return true;
    } catch (const SettingsError& failure) {
      findings_.errors.emplace_back(failure.what());
      return false;
    }
  }
  template <class T>
  std::optional<T> get(std::string_view key) {
    std::optional<T> value;
    attempt([&] { value = settings_.get<T>(key); });
    return value;
  }

  void buffers() {
    // One by one first: the reader of the group stops at the first that is missing.
    const std::size_t before = findings_.errors.size();
    get<std::int64_t>("PELORUS_MAX_PENDING_MESSAGES");
    get<double>("PELORUS_BUFFER_TIME");
    get<std::int64_t>("PELORUS_IDEAL_QUEUED_MESSAGES");
    get<std::int64_t>("PELORUS_MAX_BATCH_SIZE");
    get<std::int64_t>("PELORUS_DISCARD_SIZE");
    if (findings_.errors.size() > before) return;
    BufferSettings buffer;
    if (attempt([&] { buffer = BufferSettings::read(settings_); })) plausible_buffers(buffer);
  }

  void plausible_buffers(const BufferSettings& buffer) {
    if (buffer.discard_size >= buffer.max_pending_messages) {
      warn(
          "PELORUS_DISCARD_SIZE ({}) is not below PELORUS_MAX_PENDING_MESSAGES ({}): a full queue "
          "loses everything at once",
          buffer.discard_size, buffer.max_pending_messages);
    }
    if (buffer.ideal_queued_messages >= buffer.max_pending_messages) {
      warn(
          "PELORUS_IDEAL_QUEUED_MESSAGES ({}) is not below PELORUS_MAX_PENDING_MESSAGES ({}): "
          "only the time lets a batch go, and the queue may be full before",
          buffer.ideal_queued_messages, buffer.max_pending_messages);
    }
    const double body = static_cast<double>(buffer.max_batch_size) * message_bytes_;
    if (body > INFLUX_BODY_LIMIT) {
      warn(
          "PELORUS_MAX_BATCH_SIZE ({}) with messages of {} makes bodies of {} bytes; InfluxDB "
          "takes {} "
          "(max-body-size) unless it is told otherwise, and the whole batch is lost beyond that",
          buffer.max_batch_size, human_bytes(message_bytes_), human_count(body),
          human_count(INFLUX_BODY_LIMIT));
    }
  }

  void influx_connection() {
    const auto auth = get<std::string>("INFLUX_AUTH");
    const auto connection = get<std::string>("INFLUX_HTTP_CONNECTION");
    if (auth && connection) attempt([&] { InfluxConnection::read(settings_); });
  }

  void databases() {
    const auto records = get<std::vector<DatabaseRecord>>("INFLUX_DATABASES");
    if (!records) return;
    std::vector<std::string> names;
    for (const DatabaseRecord& record : *records) {
      if (std::ranges::find(names, record.name) != names.end()) {
        warn("INFLUX_DATABASES names \"{}\" twice", record.name);
      }
      names.push_back(record.name);
      const bool visible = std::ranges::all_of(
          record.name, [](char byte) { return byte > ' ' && byte != '\x7f' && byte != '&'; });
      if (record.name.empty() || !visible) {
        error("INFLUX_DATABASES: a name is empty, or holds a blank, a control byte or \"&\"");
      }
    }
    const auto has = [&](std::string_view name) {
      return std::ranges::find(names, name) != names.end();
    };
    if (!has(TIDEWELL_DATABASE)) {
      warn(
          "INFLUX_DATABASES lacks \"{}\": the daemon's own records and those of the local collectd "
          "have no place to go",
          TIDEWELL_DATABASE);
    }
    if (!has(BONDING_DATABASE)) {
      warn("INFLUX_DATABASES lacks \"{}\": what nodes send with \"collectd\" has no place to go",
           BONDING_DATABASE);
    }
  }

  void local_socket() {
    constexpr std::size_t MOST_BYTES = sizeof(sockaddr_un::sun_path) - 1;
    const auto path = get<std::string>("INFLUX_UNIX_SOCKET");
    if (!path) return;
    if (path->empty() || path->size() > MOST_BYTES || path->find('\0') != path->npos) {
      return error("INFLUX_UNIX_SOCKET has {} bytes; 1 to {} are possible, none of them zero",
                   path->size(), MOST_BYTES);
    }
    const std::filesystem::path socket(*path);
    if (!socket.is_absolute()) {
      warn("INFLUX_UNIX_SOCKET {} is relative to the folder that the daemon is started in", *path);
    }
    std::error_code failure;
    if (!std::filesystem::is_directory(socket.is_absolute() ? socket.parent_path() : ".",
                                       failure)) {
      warn("INFLUX_UNIX_SOCKET: there is no folder {} now", socket.parent_path().string());
    }
  }

  void node_server() {
    const auto host = get<std::string>("PELORUS_SERVER");
    in_addr v4{};
    in6_addr v6{};
    if (host && inet_pton(AF_INET6, host->c_str(), &v6) == 1) {
      error("PELORUS_SERVER {} is an IPv6 address; the server for the nodes speaks IPv4", *host);
    } else if (host && !host->empty() && inet_pton(AF_INET, host->c_str(), &v4) != 1) {
      warn("PELORUS_SERVER {} is no address; the name must resolve when the daemon starts", *host);
    }
    const auto port = get<std::int64_t>("PELORUS_PORT");
    if (port && (*port < 0 || *port > 65535)) error("PELORUS_PORT ({}) is no TCP port", *port);
    if (port && *port == 0) warn("PELORUS_PORT is 0: the system picks another port at each start");
  }

  void web_key() {
    const auto key = get<std::string>("LOCAL_WWW_KEY");
    if (!key) return;
    if (std::ranges::any_of(*key, [](unsigned char c) { return c < ' ' || c == '\x7f'; })) {
      error("LOCAL_WWW_KEY holds a control byte");
    } else if (key->empty()) {
      warn("LOCAL_WWW_KEY is empty: the web server will confirm no node");
    }
  }

  const Settings& settings_;
  const double message_bytes_;
  Findings findings_;
};

}  // namespace

Findings check_settings(const Settings& settings, double message_bytes) {
  return Check(settings, message_bytes).run();
}

}  // namespace pelorus::ctl
