#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelorus/ctl/options.h"
#include "pelorus/ctl/output.h"
#include "pelorus/ctl/subcommands.h"
#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/settings.h"
#include "skein/socket.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

/// Largest body that InfluxDB accepts by default.
constexpr double INFLUX_BODY_LIMIT = 25e6;  // bytes

/// Looks at every key as the daemon reads it, and at how they fit together. No text holds the value
/// of a credential.
class SettingsCheck {
 public:
  /// `message_bytes`: size of a usual message.
  explicit SettingsCheck(double message_bytes) : message_bytes_(message_bytes) {}

  /// Reads the settings in `file`; if it is empty, in the file that the daemon would read.
  void run(const std::string& file) {
    const bool usable =
        attempt([&] { settings_ = file.empty() ? Settings::load() : Settings::from_file(file); });
    if (!usable) return;
    buffers();
    databases();
    local_socket();
    influx_connection();
    node_server();
    web_key();
    file_mode();
  }

  /// The file that was read. Only if there are no errors.
  const std::string& source() const { return settings_->source(); }

  /// The daemon would not start, or would lose data.
  const std::vector<std::string>& errors() const { return errors_; }
  /// The daemon would work, but somebody should know.
  const std::vector<std::string>& warnings() const { return warnings_; }

 private:
  template <class... Args>
  void error(fmt::format_string<Args...> text, Args&&... args) {
    errors_.push_back(fmt::format(text, std::forward<Args>(args)...));
  }
  template <class... Args>
  void warn(fmt::format_string<Args...> text, Args&&... args) {
    warnings_.push_back(fmt::format(text, std::forward<Args>(args)...));
  }
  /// Returns false, and adds an error, if `step` throws a SettingsError.
  template <class Step>
  bool attempt(Step&& step) {
    try {
      step();
      return true;
    } catch (const SettingsError& failure) {
      errors_.emplace_back(failure.what());
      return false;
    }
  }
  template <class T>
  std::optional<T> get(std::string_view key) {
    std::optional<T> value;
    attempt([&] { value = settings_->get<T>(key); });
    return value;
  }

  void buffers() {
    // Each key first, because BufferSettings::read() stops at the first that is missing.
    const std::size_t before = errors_.size();
    get<std::int64_t>("PELORUS_MAX_PENDING_MESSAGES");
    get<double>("PELORUS_BUFFER_TIME");
    get<std::int64_t>("PELORUS_IDEAL_QUEUED_MESSAGES");
    get<std::int64_t>("PELORUS_MAX_BATCH_SIZE");
    get<std::int64_t>("PELORUS_DISCARD_SIZE");
    if (errors_.size() > before) return;
    BufferSettings buffer;
    if (attempt([&] { buffer = BufferSettings::read(*settings_); })) plausible_buffers(buffer);
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
    if (auth && connection) attempt([&] { InfluxConnection::read(*settings_); });
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
    const auto path = get<std::string>("INFLUX_UNIX_SOCKET");
    if (!path) return;
    if (!skein::unix_address(*path)) {
      return error("INFLUX_UNIX_SOCKET has {} bytes; 1 to {} are possible, none of them zero",
                   path->size(), skein::MAX_UNIX_PATH_BYTES);
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
    if (std::ranges::any_of(*key, skein::is_control)) {
      error("LOCAL_WWW_KEY holds a control byte");
    } else if (key->empty()) {
      warn("LOCAL_WWW_KEY is empty: the web server will confirm no node");
    }
  }

  /// The file holds credentials.
  void file_mode() {
    const std::string& file = settings_->source();
    struct stat status {};
    if (::stat(file.c_str(), &status) == 0 && (status.st_mode & 0007U) != 0) {
      warn("{} holds credentials and is open to every account (mode {:04o})", file,
           status.st_mode & 07777U);
    }
  }

  const double message_bytes_;
  std::optional<Settings> settings_;
  std::vector<std::string> errors_;
  std::vector<std::string> warnings_;
};

struct CheckOptions {
  std::string file;
  double message_bytes = 16384;
};

void run(const CheckOptions& options) {
  const Palette palette = Palette::of_stdout();
  SettingsCheck check(options.message_bytes);
  check.run(options.file);
  if (check.errors().empty()) fmt::print("{} can be used\n", check.source());
  for (const std::string& text : check.errors()) {
    fmt::print("{} {}\n", palette.paint(Tone::BAD, "error:"), skein::without_controls(text));
  }
  for (const std::string& text : check.warnings()) {
    fmt::print("{} {}\n", palette.paint(Tone::WARNING, "warning:"), skein::without_controls(text));
  }
  if (!check.errors().empty()) throw CLI::RuntimeError(static_cast<int>(ExitStatus::FAILURE));
}

}  // namespace

void add_check(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("check", "Check the settings of the daemon; needs no daemon");
  const auto options = std::make_shared<CheckOptions>();  // shared with the callback
  command
      ->add_option("file", options->file,
                   "Settings file; default: the file that PELORUS_SETTINGS names, else "
                   "/etc/pelorus/settings.json")
      ->type_name("FILE");
  command
      ->add_option("--message-bytes", options->message_bytes,
                   "Usual size of a message, to estimate the size of a write; a block of "
                   "collectd has up to 65536")
      ->type_name("BYTES")
      ->check(CLI::Range(1.0, 1e9).description(""))
      ->capture_default_str();
  command->footer(
      "Exit status:\n  0  the settings can be used, perhaps with warnings\n  1  they cannot\n"
      "  2  wrong command line\n");
  command->callback([options] { run(*options); });
}

}  // namespace pelorus::ctl
