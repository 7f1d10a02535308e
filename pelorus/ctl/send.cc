#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/ctl/command.h"
#include "pelorus/ctl/output.h"
#include "skein/client.h"
#include "skein/errors.h"
#include "skein/socket.h"

namespace pelorus::ctl {
namespace {

struct SendOptions {
  std::string file;  ///< empty: standard input
  std::string kind = "graphite";
  std::string database = "bonding";
};

/// Most bytes of one block.
constexpr std::size_t BLOCK_BYTES = 64U << 10;

/// Reads a descriptor, which it borrows, and cuts it into blocks of whole lines.
class BlockReader {
 public:
  explicit BlockReader(int descriptor) : descriptor_(descriptor) {}

  /// The next block: as many whole lines as fit; empty at the end. Adds a newline if the last line
  /// lacks it. Throws skein::Failure if reading fails or a line is longer than a block.
  std::string next() {
    fill();
    if (ended_ && !unread_.empty() && unread_.back() != '\n' && unread_.size() < BLOCK_BYTES) {
      unread_ += '\n';
    }
    const std::size_t end = unread_.rfind('\n') + 1;  // 0: there is no whole line
    if (end == 0 && !unread_.empty()) {
      throw skein::Failure("a line is longer than " + std::to_string(BLOCK_BYTES) + " bytes");
    }
    std::string block = unread_.substr(0, end);
    unread_.erase(0, end);
    return block;
  }

 private:
  void fill() {
    std::size_t size = unread_.size();
    unread_.resize(BLOCK_BYTES);
    while (!ended_ && size < BLOCK_BYTES) {
      const ssize_t count = ::read(descriptor_, unread_.data() + size, BLOCK_BYTES - size);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) throw skein::SystemFailure("cannot read the lines", errno);
      ended_ = count == 0;
      size += static_cast<std::size_t>(count);
    }
    unread_.resize(size);
  }

  int descriptor_;
  bool ended_ = false;
  std::string unread_;  // up to one block
};

struct Point {
  std::string_view name;
  std::int64_t milliseconds = 0;
  std::string_view value;  ///< the rest of the line
};

Point point_of(std::string_view line) {
  const std::size_t time = line.find(' ') + 1;
  const std::size_t value = time == 0 ? 0 : line.find(' ', time) + 1;
  Point point;
  const char* const end = line.data() + value - 1;
  if (value != 0 && time > 1) {
    const auto read = std::from_chars(line.data() + time, end, point.milliseconds);
    if (read.ec == std::errc() && read.ptr == end) {
      point.name = line.substr(0, time - 1);
      point.value = line.substr(value);
      return point;
    }
  }
  throw skein::Failure(
      fmt::format("'{}' is no point: name, milliseconds and value are needed", line.substr(0, 80)));
}

/// The points of a block. Throws skein::Failure for a line that is no point.
std::vector<Point> points_of(std::string_view block) {
  std::vector<Point> points;
  while (!block.empty()) {
    const std::size_t end = block.find('\n');
    const std::string_view line = block.substr(0, end);
    block.remove_prefix(end == block.npos ? block.size() : end + 1);
    if (!line.empty()) points.push_back(point_of(line));
  }
  return points;
}

/// Sends points of one name.
void submit(skein::Client& client, const SendOptions& options, const std::string& key,
            std::span<const Point> points) {
  skein::MsgpackWriter args;
  args.map(6).text("key").text(key).text("database").text(options.database);
  args.text("name").text(points.front().name);
  args.text("columns").list(2).text("time").text("value");
  args.text("time_precision").text("m");
  args.text("points").list(points.size());
  for (const Point& point : points) args.list(2).integer(point.milliseconds).text(point.value);
  client.call("submit", args);
}

/// Sends one block of whole lines and waits for the reply. `key`: empty for the local socket.
void send_block(skein::Client& client, const SendOptions& options, const std::string& key,
                std::string_view block) {
  if (options.kind == "submit") {
    const std::vector<Point> points = points_of(block);
    for (auto run = points.begin(); run != points.end();) {  // one request for each run of a name
      const auto end = std::find_if(run, points.end(),
                                    [&](const Point& point) { return point.name != run->name; });
      submit(client, options, key, {run, end});
      run = end;
    }
    return;
  }
  const bool add = options.kind == "add";
  skein::MsgpackWriter args;
  args.map((key.empty() ? 1U : 2U) + (add ? 1U : 0U));
  if (!key.empty()) args.text("key").text(key);
  if (add) args.text("database").text(options.database);
  args.text(add ? "data" : "metrics").text(block);
  client.call(add ? "add" : "collectd", args);
}

/// Shows the progress of a long transfer on one line of standard error, if that is a terminal.
/// Shows nothing in the first half second.
class Progress {
 public:
  /// `total`: bytes in all, if that is known.
  explicit Progress(std::optional<std::uint64_t> total)
      : total_(total), terminal_(isatty(STDERR_FILENO) == 1) {}
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Clears the line.
  ~Progress() {
    if (shown_ != Clock::time_point()) std::fputs("\r\033[K", stderr);
  }

  /// `done`: bytes so far.
  void show(std::uint64_t done) {
    const auto now = Clock::now();
    if (!terminal_ || now - began_ < FIRST_AFTER || now - shown_ < INTERVAL) return;
    shown_ = now;
    const std::chrono::duration<double> seconds = now - began_;
    fmt::print(stderr, "\r{}\033[K", line(static_cast<double>(done), seconds.count()));
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr auto FIRST_AFTER = std::chrono::milliseconds(500);
  static constexpr auto INTERVAL = std::chrono::milliseconds(100);

  /// Bar, percentage, amount, rate and remaining time, as far as they are known.
  std::string line(double done, double seconds) const {
    constexpr std::size_t WIDTH = 30;
    const double rate = seconds > 0 ? done / seconds : 0;
    const std::string amount = fmt::format("{}  {}/s", human_bytes(done), human_bytes(rate));
    if (!total_ || *total_ == 0) return amount;
    const auto total = static_cast<double>(*total_);
    const double part = std::min(done / total, 1.0);
    const auto filled = static_cast<std::size_t>(part * WIDTH);
    return fmt::format("[{}{}] {:3.0f} %  {}  {} left", std::string(filled, '#'),
                       std::string(WIDTH - filled, '.'), part * 100, amount,
                       rate > 0 ? human_duration(std::max(total - done, 0.0) / rate) : "?");
  }

  const std::optional<std::uint64_t> total_;
  const bool terminal_;
  const Clock::time_point began_ = Clock::now();
  Clock::time_point shown_;  ///< the epoch: not yet
};

/// The file, or standard input if there is no name.
skein::Socket open_input(const std::string& file) {
  const bool standard = file.empty() || file == "-";
  skein::Socket input(standard ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!input) {
    throw skein::SystemFailure(
        standard ? "cannot read standard input" : fmt::format("cannot read '{}'", file), errno);
  }
  return input;
}

std::optional<std::uint64_t> size_of(const skein::Socket& input) {
  struct stat status {};
  if (::fstat(input.descriptor(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

/// Sends all blocks. Counts in `sent` the lines that were answered.
void send_all(const ServerOptions& server, const SendOptions& options, std::size_t& sent) {
  const skein::Socket input = open_input(options.file);
  skein::Client client(server.endpoint(), server.timeouts());
  const std::string key = server.key();
  client.open();
  BlockReader blocks(input.descriptor());
  Progress progress(size_of(input));
  std::uint64_t bytes = 0;
  for (std::string block = blocks.next(); !block.empty(); block = blocks.next()) {
    send_block(client, options, key, block);
    sent += static_cast<std::size_t>(std::count(block.begin(), block.end(), '\n'));
    progress.show(bytes += block.size());
  }
}

void run(const ServerOptions& server, const SendOptions& options) {
  if (options.kind != "graphite" && server.host.empty()) {
    throw UsageError(
        "the local socket takes Graphite lines alone: --kind add and --kind submit "
        "need --host");
  }
  std::size_t sent = 0;
  try {
    send_all(server, options, sent);
  } catch (...) {
    if (sent > 0)
      std::fputs(fmt::format("pelorusctl: {} sent, then it failed\n", human_number_of("line", sent))
                     .c_str(),
                 stderr);
    throw;
  }
  fmt::print("{} sent\n", human_number_of("line", sent));
}

}  // namespace

void add_send(CLI::App& app, ServerOptions& server) {
  CLI::App* command =
      app.add_subcommand("send", "Send lines to a daemon block by block, and wait for each reply");
  const auto options = std::make_shared<SendOptions>();  // shared with the callback
  command->add_option("file", options->file, "File with the lines; default: standard input")
      ->type_name("FILE");
  command
      ->add_option("--kind", options->kind,
                   "Kind of the lines: graphite, \"series value timestamp\"; add, records of line "
                   "protocol; submit, points of the legacy API, \"name milliseconds value\", where "
                   "the value is the rest of the line. The last two need --host")
      ->type_name("graphite|add|submit")
      ->check(CLI::IsMember({"graphite", "add", "submit"}).description(""))
      ->capture_default_str();
  command->add_option("--database", options->database, "Database for --kind add and --kind submit")
      ->type_name("NAME")
      ->capture_default_str();
  server.add_local(*command);
  server.add_remote(*command);
  command->callback([&server, options] { run(server, *options); });
}

}  // namespace pelorus::ctl
