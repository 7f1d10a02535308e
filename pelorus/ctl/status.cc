#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/ctl/options.h"
#include "pelorus/ctl/output.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/subcommands.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

constexpr bool RIGHT = Table::RIGHT;

/// A turn of the event loop that takes at least this long is shown as bad.
constexpr double SLOW_TURN_SECONDS = 0.5;
/// A queue that is full within this time is shown as bad.
constexpr double SOON_FULL_SECONDS = 600;

Cell problems(const ReplyValue& number, Tone tone) {
  return {human_count(number.amount()), number.amount() > 0 ? tone : Tone::FAINT};
}

std::string ago(const ReplyValue& moment, double now) {
  return moment.number() ? human_duration(now - *moment.number()) + " ago" : "never";
}

std::string amount(const ReplyValue& amounts) {
  if (amounts["messages"].amount() == 0) return "0";
  return fmt::format("{} ({})", human_count(amounts["messages"].amount()),
                     human_bytes(amounts["bytes"].amount()));
}

Cell bad_amount(const ReplyValue& amounts) {
  return {amount(amounts), amounts["messages"].amount() > 0 ? Tone::BAD : Tone::FAINT};
}

/// "3 (format 1, no_rule 2)"
std::string count_by_name(const ReplyValue& counts) {
  double sum = 0;
  std::string parts;
  counts.each_pair([&](const std::string& name, const ReplyValue& count) {
    if (count.amount() == 0) return;
    sum += count.amount();
    parts += fmt::format("{}{} {}", parts.empty() ? "" : ", ", name, human_count(count.amount()));
  });
  return human_count(sum) + (parts.empty() ? "" : " (" + parts + ")");
}

/// What was refused since the start, of closed connections too.
std::string refusals(const ReplyValue& totals) {
  return fmt::format(
      "bad lines: {}, refused requests: {}\n"
      "connections ended by a limit or a broken protocol: {}, dropped log lines: {}\n",
      count_by_name(totals["bad_lines"]), human_count(totals["refused_requests"].amount()),
      count_by_name(totals["ended_connections"]),
      human_count(totals["dropped_log_lines"].amount()));
}

std::string head(const ReplyValue& status, const Palette& palette) {
  const double delay = status["loop_delay"].amount();
  const ReplyValue totals = status["totals"];
  const double refused = totals["refused_auths"].amount();
  return fmt::format(
             "{}, up {}, since {}\n"
             "longest turn of the loop in the last minute: {}\n"
             "messages received: {}, records in them: {}\n"
             "keys verified: {} accepted, {}\n",
             palette.paint(Tone::HEADING,
                           "pelorus " + skein::without_controls(status["version"].text())),
             human_duration(status["uptime"].amount()), human_moment(status["started"].amount()),
             palette.paint(delay >= SLOW_TURN_SECONDS ? Tone::BAD : Tone::PLAIN,
                           fmt::format("{:.0f} ms", delay * 1000)),
             human_count(totals["messages"].amount()), human_count(totals["records"].amount()),
             human_count(totals["accepted_auths"].amount()),
             palette.paint(refused > 0 ? Tone::WARNING : Tone::PLAIN,
                           human_count(refused) + " refused")) +
         refusals(totals);
}

Cell until_full(const ReplyValue& seconds) {
  if (!seconds.number()) return {"-", Tone::FAINT};
  return {human_duration(seconds.amount()),
          seconds.amount() < SOON_FULL_SECONDS ? Tone::BAD : Tone::WARNING};
}

/// "16", "unknown", "16, and an unknown number in 2 of these writes"
std::string dropped_points(const ReplyValue& database) {
  const double named = database["dropped_points"].amount();
  const double unknown = database["unknown_drops"].amount();
  if (unknown == 0) return human_count(named);
  if (named == 0) return "unknown";
  return fmt::format("{}, and an unknown number in {} of these writes", human_count(named),
                     human_count(unknown));
}

/// One line for each kind of failed write of a database.
std::string write_problems(const std::string& name, const ReplyValue& database, double now,
                           const Palette& palette) {
  std::string lines;
  const auto say = [&](Tone tone, const std::string& words) {
    lines +=
        palette.paint(tone, skein::without_controls(fmt::format("  {}: {}", name, words))) + "\n";
  };
  if (const double failures = database["failure_count"].amount(); failures > 0) {
    say(Tone::BAD, "failed writes since the last good one: " + human_count(failures));
  }
  if (const double partial = database["partial_writes"].amount(); partial > 0) {
    say(Tone::WARNING,
        fmt::format(
            "writes that InfluxDB stored in part: {}, messages: {}; points that it dropped: {}",
            human_count(partial), amount(database["partial"]), dropped_points(database)));
  }
  if (const std::string failure = database["last_failure"].text(); !failure.empty()) {
    say(Tone::PLAIN,
        fmt::format("last failure {}: {}", ago(database["last_failure_time"], now), failure));
  }
  return lines;
}

std::string databases_part(const ReplyValue& status, double now, const Palette& palette) {
  Table table({{"database"},
               {"waiting", RIGHT},
               {"of", RIGHT},
               {"full in", RIGHT},
               {"sent", RIGHT},
               {"failed", RIGHT},
               {"discarded", RIGHT},
               {"largest write", RIGHT},
               {"last good write"}});
  std::string problems;
  status["databases"].each_pair([&](const std::string& name, const ReplyValue& database) {
    const bool failing = database["failure_count"].amount() > 0;
    table.add({{name, failing ? Tone::BAD : Tone::PLAIN},
               {amount(database["queued"])},
               {human_count(database["max_pending"].amount())},
               until_full(database["seconds_until_full"]),
               {amount(database["sent"])},
               bad_amount(database["failed"]),
               bad_amount(database["discarded"]),
               {human_bytes(database["largest_body"].amount())},
               // Until the first success, last_sent_time is the start.
               {database["sent"]["messages"].amount() > 0 ? ago(database["last_sent_time"], now)
                                                          : "never"}});
    problems += write_problems(name, database, now, palette);
  });
  return table.draw(palette) + problems;
}

std::string connections_part(std::string_view title, const ReplyValue& group, bool with_keys,
                             double now, const Palette& palette) {
  std::vector<Column> columns{{"address"},         {"open for", RIGHT}, {"last seen", RIGHT},
                              {"requests", RIGHT}, {"records", RIGHT},  {"bad lines", RIGHT}};
  if (with_keys) {
    columns.insert(columns.end(), {{"key"}, {"accepted", RIGHT}, {"refused", RIGHT}});
  }
  Table table(std::move(columns));
  std::string warnings;
  std::size_t listed = 0;
  group["connections"].each_item([&](const ReplyValue& connection) {
    ++listed;
    std::vector<Cell> row{{connection["address"].text()},
                          {human_duration(now - connection["since"].amount())},
                          {ago(connection["last_seen"], now)},
                          {human_count(connection["requests"].amount())},
                          {human_count(connection["records"].amount())},
                          problems(connection["bad_lines"], Tone::WARNING)};
    if (with_keys) {
      const std::string ending = connection["key_ending"].text();
      row.push_back({ending.empty() ? "-" : "…" + ending});
      row.push_back({human_count(connection["accepted_auths"].amount())});
      row.push_back(problems(connection["refused_auths"], Tone::BAD));
    }
    table.add(std::move(row));
    if (const std::string warning = connection["last_warning"].text(); !warning.empty()) {
      warnings +=
          "  " + skein::without_controls(connection["address"].text() + ": " + warning) + "\n";
    }
  });
  const auto open = static_cast<std::size_t>(group["open"].amount());
  std::string text = palette.paint(Tone::HEADING, fmt::format("{}: {} open", title, open));
  if (listed < open) text += fmt::format(", {} listed (--connections)", listed);
  text += "\n";
  if (listed > 0) text += table.draw(palette) + warnings;
  return text;
}

/// The reply to "status" for people. `now`: seconds since the epoch.
std::string status_table(skein::Value value, double now, const Palette& palette) {
  const ReplyValue status(value);
  return head(status, palette) + "\n" + databases_part(status, now, palette) + "\n" +
         connections_part("nodes", status["nodes"], true, now, palette) + "\n" +
         connections_part("local", status["local"], false, now, palette);
}

struct StatusOptions {
  bool json = false;
  double watch = 0;                ///< seconds between two requests; 0: only one
  std::uint32_t connections = 20;  ///< of each server
  std::string order = "trouble";
};

std::string draw(const ServerOptions& server, const StatusOptions& options) {
  skein::MsgpackWriter args;
  args.map(2).text("connections").natural(options.connections);
  args.text("order").text(options.order);
  const skein::Answer answer = ask(server, "status", args);
  if (options.json) return to_json(answer.result());
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  return status_table(answer.result(), now.count(), Palette::of_stdout());
}

void run(const ServerOptions& server, const StatusOptions& options) {
  if (options.watch > 0) watch(options.watch, [&] { return draw(server, options); });
  std::fputs(draw(server, options).c_str(), stdout);
}

}  // namespace

void add_status(CLI::App& app, ServerOptions& server) {
  CLI::App* command = app.add_subcommand(
      "status", "Show what the daemon has done since its start, and for which connections");
  const auto options = std::make_shared<StatusOptions>();  // shared with the callback
  command->add_flag("--json", options->json, "Print the daemon's reply as JSON");
  add_watch(*command, options->watch);
  command
      ->add_option("--connections", options->connections,
                   "List at most N connections of nodes and N local ones; the daemon lists at most "
                   "2000")
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("--order", options->order,
                   "Which connections come first: those in trouble (bad lines, refused keys, then "
                   "those silent the longest), those with the most records, those silent the "
                   "longest, or the newest")
      ->type_name("trouble|records|silent|newest")
      ->check(CLI::IsMember({"trouble", "records", "silent", "newest"}).description(""))
      ->capture_default_str();
  server.add_local(*command);
  command->callback([&server, options] { run(server, *options); });
}

}  // namespace pelorus::ctl
