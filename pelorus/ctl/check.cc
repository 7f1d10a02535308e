#include <arpa/inet.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "pelorus/ctl/command.h"
#include "pelorus/ctl/output.h"
#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/listen/key_verification.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/secret_text.h"
#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"
#include "skein/socket.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

/// Largest body that InfluxDB accepts by default.
constexpr double INFLUX_BODY_LIMIT = 25e6;  // bytes

/// The placeholders of the example settings.
constexpr std::string_view EXAMPLE_INFLUX_AUTH = "cGVsb3J1czpzZWNyZXQ=";
constexpr std::string_view EXAMPLE_WWW_KEY = "the administration web server's own key";

/// Whether `text` is the Base64 of a text with a ":" after its first byte.
bool is_user_and_password(std::string_view text) {
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  const std::string decoded = base64_decoded(text);
  const std::size_t colon = decoded.find(':');
  return text.size() % 4 == 0 && decoded.size() == text.size() / 4 * 3 - padding &&
         colon != decoded.npos && colon > 0;
}

/// For InfluxDB and for the web server.
constexpr std::chrono::seconds LONGEST_WAIT{10};

/// Runs the loop until `done`; false if that takes too long.
bool run_until(skein::Loop& loop, const std::function<bool()>& done) {
  constexpr std::chrono::milliseconds PAUSE{10};
  const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;
  skein::Timer timer;
  const std::function<void()> poll = [&] {
    if (done() || std::chrono::steady_clock::now() > end) return loop.stop();
    timer = loop.call_in(PAUSE, poll);
  };
  if (done()) return true;  // stop() before run() would end the next run()
  poll();
  loop.run();
  return done();
}

/// Checks every key as the daemon reads it, and whether the values fit together. No message has the
/// value of a credential.
class SettingsCheck {
 public:
  /// Bytes of a usual message, and of the memory that the daemon may take.
  SettingsCheck(double message_bytes, double memory_bytes)
      : message_bytes_(message_bytes), memory_bytes_(memory_bytes) {}

  /// Reads the settings in `file`; if it is empty, in the file that the daemon would read.
  void run(const std::string& file) {
    const bool usable =
        attempt([&] { settings_ = file.empty() ? Settings::load() : Settings::from_file(file); });
    if (!usable) return;
    databases();
    buffers();
    local_socket();
    influx_connection();
    node_server();
    web_key();
    file_mode();
  }

  /// Tries the settings with InfluxDB and the web server, by the daemon's own code. Only if there
  /// are no errors.
  void connect() {
    log::set_capture([](log::Level, std::string_view) {});  // the errors below say the same
    skein::Loop loop;
    for (const std::string& name : databases_) try_database(name, loop);
    try_web_server(loop);
  }

  /// The file that was read. Only if there are no errors.
  const std::string& source() const { return settings_->source(); }

  /// The daemon would not start, or would lose data.
  const std::vector<std::string>& errors() const { return errors_; }
  /// The daemon would work, but the operator should know.
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
    const std::size_t before = errors_.size();
    buffer_ = BufferSettings::read(*settings_, &errors_);
    if (errors_.size() == before) plausible_buffers(buffer_);
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
    const double queues = static_cast<double>(buffer.max_pending_messages) * message_bytes_ *
                          static_cast<double>(databases_.size());
    const bool is_set = settings_->contains("PELORUS_MAX_QUEUED_BYTES");
    const double limit = is_set ? static_cast<double>(buffer.max_queued_bytes) : memory_bytes_ / 2;
    if (queues > limit) {
      warn(
          "PELORUS_MAX_PENDING_MESSAGES ({}): {} with messages of {} would take {}; from {} on, "
          "{}, "
          "the oldest are dropped",
          buffer.max_pending_messages, human_number_of("full queue", databases_.size()),
          human_bytes(message_bytes_), human_bytes(queues), human_bytes(limit),
          is_set ? "PELORUS_MAX_QUEUED_BYTES" : "half of the memory (--memory-bytes)");
    }
    if (is_set && limit >= memory_bytes_) {
      warn(
          "PELORUS_MAX_QUEUED_BYTES ({}) is not below the memory limit of {} (--memory-bytes): the "
          "daemon would be killed before the queues are full",
          buffer.max_queued_bytes, human_bytes(memory_bytes_));
    }
  }

  void influx_connection() {
    const std::size_t before = errors_.size();
    influx_ = InfluxConnection::read(*settings_, &errors_);
    if (errors_.size() > before) return;
    if (influx_.auth == EXAMPLE_INFLUX_AUTH) {
      warn("INFLUX_AUTH is that of the example: everybody knows it");
    } else if (!is_user_and_password(influx_.auth)) {
      warn("INFLUX_AUTH is not the Base64 of \"user:password\": InfluxDB will refuse every write");
    }
  }

  void databases() {
    if (!attempt(
            [&] { databases_ = settings_->get<std::vector<std::string>>("INFLUX_DATABASES"); })) {
      return;
    }
    const auto has = [&](std::string_view name) {
      return std::ranges::find(databases_, name) != databases_.end();
    };
    for (auto name = databases_.begin(); name != databases_.end(); ++name) {
      if (std::find(databases_.begin(), name, *name) != name) {
        warn("INFLUX_DATABASES names \"{}\" twice", *name);
      }
      const bool visible = std::ranges::all_of(
          *name, [](char byte) { return byte > ' ' && byte != '\x7f' && byte != '&'; });
      if (name->empty() || !visible) {
        error("INFLUX_DATABASES: a name is empty, or holds a blank, a control byte or \"&\"");
      }
    }
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
    if (host &&
        (host->empty() || (inet_pton(AF_INET, host->c_str(), &v4) == 1 && v4.s_addr == 0))) {
      warn("PELORUS_SERVER {} is every address of this machine; what nodes send is not encrypted",
           host->empty() ? "is empty, which" : *host);
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
    } else if (*key == EXAMPLE_WWW_KEY) {
      warn("LOCAL_WWW_KEY is the text of the example: the web server will confirm no node");
    }
  }

  /// The file holds credentials.
  void file_mode() {
    const std::string& file = settings_->source();
    std::error_code failure;
    const auto mode = std::filesystem::status(file, failure).permissions();
    if (!failure && (mode & std::filesystem::perms::others_all) != std::filesystem::perms::none) {
      warn("{} holds credentials and is open to every account (mode {:04o})", file,
           static_cast<unsigned>(mode));
    }
  }

  /// Writes a comment: InfluxDB checks the account and the database, and stores nothing.
  void try_database(const std::string& name, skein::Loop& loop) {
    const BufferSettings at_once{.max_pending_messages = 2,
                                 .max_buffer_time = 0,
                                 .ideal_queued_messages = 1,
                                 .max_batch_size = 1,
                                 .discard_size = 1};
    InfluxDatabase database(name, at_once, influx_, loop);
    database.add("# pelorusctl check");
    std::string text;
    if (!run_until(loop, [&] { return !database.has_current_request(); })) {
      text = fmt::format("no answer within {} seconds", LONGEST_WAIT.count());
    } else if (const auto& failure = database.counters().last_failure) {
      text = failure->text;
    }
    if (!text.empty()) error("database \"{}\": {}{}", name, text, hint_of(text));
  }
  static std::string_view hint_of(std::string_view failure) {
    if (failure.starts_with("status 401")) return " (INFLUX_AUTH: unknown account or password)";
    if (failure.starts_with("status 403"))
      return " (the account of INFLUX_AUTH may not write there)";
    if (failure.starts_with("status 404")) return " (there is no such database)";
    if (failure.starts_with("status")) return "";
    return " (INFLUX_HTTP_CONNECTION)";
  }

  /// Verifies a key that no node has.
  void try_web_server(skein::Loop& loop) {
    KeyVerification verification(*settings_, loop);
    std::optional<KeyOutcome> outcome;
    verification.do_auth_check("pelorusctl-check",
                               [&](KeyOutcome end) { outcome = std::move(end); });
    constexpr std::string_view WHO = "the administration web server";
    if (!run_until(loop, [&] { return outcome.has_value(); })) {
      return error("{} did not answer within {} seconds", WHO, LONGEST_WAIT.count());
    }
    if (const auto* answer = std::get_if<KeyResponse>(&*outcome)) {
      if (answer->status == 401 || answer->status == 403) {
        error("{} answers with status {} (LOCAL_WWW_KEY)", WHO, answer->status);
      } else if (answer->status != 200) {
        error("{} answers with status {}", WHO, answer->status);
      } else if (!nlohmann::json::parse(answer->body, nullptr, false).is_object()) {
        error("{} answers with what is no JSON object", WHO);
      }
    } else if (const auto* failure = std::get_if<WebFailure>(&*outcome)) {
      error("{} at {} {}", WHO, NODE_KEY_VERIFICATION_API_URL,
            *failure == WebFailure::TIMED_OUT ? "takes too long" : "cannot be reached");
    } else {
      try {
        std::rethrow_exception(std::get<std::exception_ptr>(*outcome));
      } catch (const std::exception& fault) {
        error("{}: {}", WHO, fault.what());
      }
    }
  }

  const double message_bytes_;
  const double memory_bytes_;
  std::optional<Settings> settings_;
  BufferSettings buffer_;
  InfluxConnection influx_;
  std::vector<std::string> databases_;  ///< their names
  std::vector<std::string> errors_;
  std::vector<std::string> warnings_;
};

struct CheckOptions {
  std::string file;
  double message_bytes = 16384;
  double memory_bytes = 2147483648;  ///< MemoryMax of the unit
  bool connect = false;
};

void run(const CheckOptions& options) {
  SettingsCheck check(options.message_bytes, options.memory_bytes);
  check.run(options.file);
  if (options.connect && check.errors().empty()) check.connect();
  if (check.errors().empty()) fmt::print("{} can be used\n", check.source());
  for (const std::string& text : check.errors()) {
    fmt::print("{} {}\n", styled(BAD, "error:"), skein::without_controls(text));
  }
  for (const std::string& text : check.warnings()) {
    fmt::print("{} {}\n", styled(WARNING, "warning:"), skein::without_controls(text));
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
  command
      ->add_option("--memory-bytes", options->memory_bytes,
                   "Memory that the daemon may take; the unit sets it as MemoryMax")
      ->type_name("BYTES")
      ->check(CLI::Range(1.0, 1e15).description(""))
      ->default_str("2147483648");
  command->add_flag("--connect", options->connect,
                    "Also ask InfluxDB whether the account may write to each database, and the "
                    "administration web server whether it answers; nothing is stored");
  command->footer(
      "Exit status:\n  0  the settings can be used, perhaps with warnings\n  1  they cannot\n"
      "  2  wrong command line\n");
  command->callback([options] { run(*options); });
}

}  // namespace pelorus::ctl
