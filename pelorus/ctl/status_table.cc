#include <fmt/format.h>

#include <iterator>
#include <vector>

#include "pelorus/ctl/human.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/status.h"
#include "pelorus/ctl/table.h"

namespace pelorus::ctl {
namespace {

using enum Table::Side;

/// A turn of the loop this long is worth a look.
constexpr double SLOW_TURN_SECONDS = 0.5;
/// A queue that is full within this time needs somebody now.
constexpr double SOON_FULL_SECONDS = 600;

Cell problems(const Reading& number, Tone tone) {
  return {human_count(number.amount()), number.amount() > 0 ? tone : Tone::FAINT};
}

std::string ago(const Reading& moment, double now) {
  return moment.number() ? human_duration(now - *moment.number()) + " ago" : "never";
}

std::string amount(const Reading& amount) {
  if (amount["messages"].amount() == 0) return "0";
  return fmt::format("{} ({})", human_count(amount["messages"].amount()),
                     human_bytes(amount["bytes"].amount()));
}

Cell bad_amount(const Reading& reading) {
  return {amount(reading), reading["messages"].amount() > 0 ? Tone::BAD : Tone::FAINT};
}

std::string head(const Reading& status, const Palette& palette) {
  const double delay = status["loop_delay"].amount();
  const Reading totals = status["totals"];
  const double refused = totals["refused_auths"].amount();
  return fmt::format(
      "{}, up {}, since {}\n"
      "longest turn of the loop in the last minute: {}\n"
      "messages received: {}, records in them: {}\n"
      "keys verified: {} accepted, {}\n",
      palette.paint(Tone::HEADING, "pelorus " + without_controls(status["version"].text())),
      human_duration(status["uptime"].amount()), human_moment(status["started"].amount()),
      palette.paint(delay >= SLOW_TURN_SECONDS ? Tone::BAD : Tone::PLAIN,
                    fmt::format("{:.0f} ms", delay * 1000)),
      human_count(totals["messages"].amount()), human_count(totals["records"].amount()),
      human_count(totals["accepted_auths"].amount()),
      palette.paint(refused > 0 ? Tone::WARNING : Tone::PLAIN, human_count(refused) + " refused"));
}

Cell until_full(const Reading& seconds) {
  if (!seconds.number()) return {"-", Tone::FAINT};
  return {human_duration(seconds.amount()),
          seconds.amount() < SOON_FULL_SECONDS ? Tone::BAD : Tone::WARNING};
}

/// What went wrong with the writes of a database, a line each.
std::string write_problems(const std::string& name, const Reading& database, double now,
                           const Palette& palette) {
  std::string lines;
  const auto say = [&](Tone tone, const std::string& words) {
    lines += palette.paint(tone, without_controls(fmt::format("  {}: {}", name, words))) + "\n";
  };
  if (const double failures = database["failure_count"].amount(); failures > 0) {
    say(Tone::BAD, "failed writes since the last good one: " + human_count(failures));
  }
  if (const double partial = database["partial_writes"].amount(); partial > 0) {
    say(Tone::WARNING,
        fmt::format("writes that InfluxDB took in part: {}; points that it dropped: {}",
                    human_count(partial), human_count(database["dropped_points"].amount())));
  }
  if (const std::string failure = database["last_failure"].text(); !failure.empty()) {
    say(Tone::PLAIN,
        fmt::format("last failure {}: {}", ago(database["last_failure_time"], now), failure));
  }
  return lines;
}

std::string databases_part(const Reading& status, double now, const Palette& palette) {
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
  status["databases"].each_pair([&](const std::string& name, const Reading& database) {
    const bool failing = database["failure_count"].amount() > 0;
    table.add({{name, failing ? Tone::BAD : Tone::PLAIN},
               {amount(database["queued"])},
               {human_count(database["max_pending"].amount())},
               until_full(database["seconds_until_full"]),
               {amount(database["sent"])},
               bad_amount(database["failed"]),
               bad_amount(database["discarded"]),
               {human_bytes(database["largest_body"].amount())},
               // Without a success it is the start.
               {database["sent"]["messages"].amount() > 0 ? ago(database["last_sent_time"], now)
                                                          : "never"}});
    problems += write_problems(name, database, now, palette);
  });
  return table.draw(palette) + problems;
}

std::string connections_part(std::string_view title, const Reading& group, bool with_keys,
                             double now, const Palette& palette) {
  std::vector<Table::Column> columns{{"address"},          {"open for", RIGHT},
                                     {"last seen", RIGHT}, {"requests", RIGHT},
                                     {"records", RIGHT},   {"bad lines", RIGHT}};
  if (with_keys) {
    columns.insert(columns.end(), {{"key"}, {"accepted", RIGHT}, {"refused", RIGHT}});
  }
  Table table(std::move(columns));
  std::string warnings;
  std::size_t listed = 0;
  group["connections"].each_item([&](const Reading& connection) {
    ++listed;
    std::vector<Cell> line{{connection["address"].text()},
                           {human_duration(now - connection["since"].amount())},
                           {ago(connection["last_seen"], now)},
                           {human_count(connection["requests"].amount())},
                           {human_count(connection["records"].amount())},
                           problems(connection["bad_lines"], Tone::WARNING)};
    if (with_keys) {
      const std::string ending = connection["key_ending"].text();
      line.push_back({ending.empty() ? "-" : "…" + ending});
      line.push_back({human_count(connection["accepted_auths"].amount())});
      line.push_back(problems(connection["refused_auths"], Tone::BAD));
    }
    table.add(std::move(line));
    if (const std::string warning = connection["last_warning"].text(); !warning.empty()) {
      warnings += "  " + without_controls(connection["address"].text() + ": " + warning) + "\n";
    }
  });
  const auto open = static_cast<std::size_t>(group["open"].amount());
  std::string text = palette.paint(Tone::HEADING, fmt::format("{}: {} open", title, open));
  if (listed < open) text += fmt::format(", {} listed (--connections)", listed);
  text += "\n";
  if (listed > 0) text += table.draw(palette) + warnings;
  return text;
}

}  // namespace

std::string status_table(skein::Value value, double now, const Palette& palette) {
  const Reading status(value);
  return head(status, palette) + "\n" + databases_part(status, now, palette) + "\n" +
         connections_part("nodes", status["nodes"], true, now, palette) + "\n" +
         connections_part("local", status["local"], false, now, palette);
}

}  // namespace pelorus::ctl
