#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/ctl/options.h"
#include "pelorus/ctl/output.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/subcommands.h"
#include "pelorus/ctl/watch.h"
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

/// What a counter grew by each second between two looks.
class Rates {
 public:
  /// No rates if the daemon was restarted in between, or `before` is empty.
  Rates(const ReplyValue& status, const ReplyValue& before)
      : before_(before),
        seconds_(before["started"].amount() == status["started"].amount()
                     ? status["uptime"].amount() - before["uptime"].amount()
                     : 0) {}

  const ReplyValue& before() const { return before_; }

  std::optional<double> of(const ReplyValue& now, const ReplyValue& then) const {
    if (seconds_ <= 0 || !then.number() || now.amount() < then.amount()) return std::nullopt;
    return (now.amount() - then.amount()) / seconds_;
  }
  /// "46.3", or "-" if there is none.
  std::string text(const ReplyValue& now, const ReplyValue& then) const {
    const auto rate = of(now, then);
    return rate ? human_rate(*rate) : "-";
  }
  /// "1,234 (46.3/s)"
  std::string beside_count(const ReplyValue& now, const ReplyValue& then) const {
    const auto rate = of(now, then);
    return human_count(now.amount()) + (rate ? fmt::format(" ({}/s)", human_rate(*rate)) : "");
  }

 private:
  ReplyValue before_;
  double seconds_;
};

/// What is drawn, and with what. Rates only if the daemon is watched.
struct View {
  ReplyValue status;
  std::optional<Rates> rates;
  double now = 0;  ///< seconds since the epoch
  Palette palette;

  std::string count(std::string_view group, std::string_view key) const {
    const ReplyValue value = status[group][key];
    return rates ? rates->beside_count(value, rates->before()[group][key])
                 : human_count(value.amount());
  }
};

std::string head(const View& view) {
  const ReplyValue& status = view.status;
  const Palette& palette = view.palette;
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
             view.count("totals", "messages"), view.count("totals", "records"),
             human_count(totals["accepted_auths"].amount()),
             palette.paint(refused > 0 ? Tone::WARNING : Tone::PLAIN,
                           human_count(refused) + " refused")) +
         refusals(totals);
}

/// A title, a table and lines about its rows.
struct Section {
  std::string title;  ///< a line, or empty
  Table table;
  std::string notes;  ///< lines

  std::size_t lines() const {
    const auto count = [](const std::string& text) { return std::ranges::count(text, '\n'); };
    return static_cast<std::size_t>(count(title) + count(notes)) + table.lines();
  }
  std::string draw(const Palette& palette, Room room) const {
    const auto rest = [&room](std::size_t used) { return room.rows - std::min(used, room.rows); };
    const std::size_t titles = title.empty() ? 0 : 1;
    const std::string drawn = table.draw(palette, {room.columns, rest(titles)});
    return fitted(title + drawn + notes, room);
  }
};

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
std::string write_problems(const std::string& name, const ReplyValue& database, const View& view) {
  std::string lines;
  const auto say = [&](Tone tone, const std::string& words) {
    const std::string line = skein::without_controls(fmt::format("  {}: {}", name, words));
    lines += view.palette.paint(tone, line) + "\n";
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
        fmt::format("last failure {}: {}", ago(database["last_failure_time"], view.now), failure));
  }
  return lines;
}

/// Any database that has a member of this name.
bool any_has(const ReplyValue& databases, std::string_view key) {
  bool found = false;
  databases.each_pair([&](const std::string&, const ReplyValue& database) {
    found = found || database[key].number();
  });
  return found;
}

Section databases_section(const View& view) {
  const ReplyValue databases = view.status["databases"];
  const bool growing = any_has(databases, "seconds_until_full");
  std::vector<Column> columns{{"database"}, {"waiting", RIGHT, 1}, {"of", RIGHT, 8}};
  if (growing) columns.push_back({"full in", RIGHT, 2});
  columns.push_back({"sent", RIGHT, 7});
  if (view.rates) columns.push_back({"sent/s", RIGHT, 5});
  columns.insert(columns.end(), {{"failed", RIGHT, 3},
                                 {"discarded", RIGHT, 4},
                                 {"largest write", RIGHT, 9},
                                 {"last good write", false, 6}});
  Section section{"", Table(std::move(columns)), ""};
  databases.each_pair([&](const std::string& name, const ReplyValue& database) {
    const bool failing = database["failure_count"].amount() > 0;
    const ReplyValue sent = database["sent"]["messages"];
    std::vector<Cell> row{{name, failing ? Tone::BAD : Tone::PLAIN},
                          {amount(database["queued"])},
                          {human_count(database["max_pending"].amount())}};
    if (growing) row.push_back(until_full(database["seconds_until_full"]));
    row.push_back({amount(database["sent"])});
    if (view.rates) {
      const ReplyValue before = view.rates->before()["databases"][name];
      row.push_back({view.rates->text(sent, before["sent"]["messages"])});
    }
    row.insert(row.end(),
               {bad_amount(database["failed"]),
                bad_amount(database["discarded"]),
                {human_bytes(database["largest_body"].amount())},
                // Until the first success, last_sent_time is the start.
                {sent.amount() > 0 ? ago(database["last_sent_time"], view.now) : "never"}});
    section.table.add(std::move(row));
    section.notes += write_problems(name, database, view);
  });
  return section;
}

/// The same connection at the look before.
ReplyValue earlier(const ReplyValue& connection, const ReplyValue& group) {
  constexpr double SAME_MOMENT = 2;  // seconds: the moments of a connection are exact to one
  ReplyValue found(std::nullopt);
  group["connections"].each_item([&](const ReplyValue& before) {
    if (before["address"].text() == connection["address"].text() &&
        std::abs(before["since"].amount() - connection["since"].amount()) < SAME_MOMENT) {
      found = before;
    }
  });
  return found;
}

Section connections_section(std::string_view name, bool with_keys, const View& view) {
  const ReplyValue group = view.status[name];
  std::vector<Column> columns{{"address"},
                              {"open for", RIGHT, 8},
                              {"last seen", RIGHT, 5},
                              {"requests", RIGHT, 7},
                              {"records", RIGHT, 6}};
  if (view.rates) columns.push_back({"records/s", RIGHT, 3});
  columns.push_back({"bad lines", RIGHT, 1});
  if (with_keys) {
    columns.insert(columns.end(),
                   {{"key", false, 4}, {"accepted", RIGHT, 9}, {"refused", RIGHT, 2}});
  }
  Section section{"", Table(std::move(columns)), ""};
  std::size_t listed = 0;
  group["connections"].each_item([&](const ReplyValue& connection) {
    ++listed;
    std::vector<Cell> row{{connection["address"].text()},
                          {human_duration(view.now - connection["since"].amount())},
                          {ago(connection["last_seen"], view.now)},
                          {human_count(connection["requests"].amount())},
                          {human_count(connection["records"].amount())}};
    if (view.rates) {
      const ReplyValue before = earlier(connection, view.rates->before()[name]);
      row.push_back({view.rates->text(connection["records"], before["records"])});
    }
    row.push_back(problems(connection["bad_lines"], Tone::WARNING));
    if (with_keys) {
      const std::string ending = connection["key_ending"].text();
      row.push_back({ending.empty() ? "-" : "…" + ending});
      row.push_back({human_count(connection["accepted_auths"].amount())});
      row.push_back(problems(connection["refused_auths"], Tone::BAD));
    }
    section.table.add(std::move(row));
    if (const std::string warning = connection["last_warning"].text(); !warning.empty()) {
      const std::string line = connection["address"].text() + ": " + warning;
      section.notes += "  " + skein::without_controls(line) + "\n";
    }
  });
  const auto open = static_cast<std::size_t>(group["open"].amount());
  section.table.set_more(open - std::min(listed, open));
  section.title = view.palette.paint(Tone::HEADING, fmt::format("{}: {} open", name, open)) + "\n";
  return section;
}

/// Shares `rows` among sections, max-min fair: what a small one does not need, the others get.
std::vector<std::size_t> shared_rows(const std::vector<Section>& sections, std::size_t rows) {
  std::vector<std::size_t> by_need(sections.size());
  std::iota(by_need.begin(), by_need.end(), 0);
  std::ranges::sort(by_need, {}, [&](std::size_t i) { return sections[i].lines(); });
  std::vector<std::size_t> shares(sections.size());
  for (std::size_t i = 0; i < by_need.size(); ++i) {
    const std::size_t share = std::min(sections[by_need[i]].lines(), rows / (by_need.size() - i));
    shares[by_need[i]] = share;
    rows -= share;
  }
  return shares;
}

/// The reply to "status" for people.
std::string status_text(const View& view, const Room& room) {
  const std::string top = head(view);
  const std::vector<Section> sections{databases_section(view),
                                      connections_section("nodes", true, view),
                                      connections_section("local", false, view)};
  const std::size_t used =
      static_cast<std::size_t>(std::ranges::count(top, '\n')) + sections.size();  // blank lines
  const auto shares = shared_rows(sections, room.rows - std::min(used, room.rows));
  std::string text = top;
  for (std::size_t i = 0; i < sections.size(); ++i) {
    text += "\n" + sections[i].draw(view.palette, {room.columns, shares[i]});
  }
  return fitted(text, room);
}

struct StatusOptions {
  bool json = false;
  double watch = 0;                ///< seconds between two requests; 0: only one
  std::uint32_t connections = 20;  ///< of each server
  std::string order = "trouble";
};

using Reply = std::shared_ptr<const skein::Answer>;  // of a look, the next look and its pictures

Reply ask_status(const ServerOptions& server, const StatusOptions& options) {
  skein::MsgpackWriter args;
  args.map(2).text("connections").natural(options.connections);
  args.text("order").text(options.order);
  return std::make_shared<const skein::Answer>(ask(server, "status", args));
}

View view_of(const Reply& reply, const std::optional<Rates>& rates) {
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  return {ReplyValue(reply->result()), rates, now.count(), Palette::of_stdout()};
}

/// Looks again and again, with rates between two looks.
[[noreturn]] void watch_status(const ServerOptions& server, const StatusOptions& options) {
  Reply last;
  watch(options.watch, [&]() -> Picture {
    const Reply before = last;
    const Reply reply = last = ask_status(server, options);
    const ReplyValue then(before ? std::optional(before->result()) : std::nullopt);
    const View view = view_of(reply, Rates(ReplyValue(reply->result()), then));
    return [before, reply, view](const Room& room) { return status_text(view, room); };
  });
}

void run(const ServerOptions& server, const StatusOptions& options) {
  const auto json = [&](JsonLines lines) {
    return to_json(ask_status(server, options)->result(), lines);
  };
  if (options.watch > 0 && !options.json) watch_status(server, options);
  if (options.watch > 0) watch_lines(options.watch, [&] { return json(JsonLines::ONE); });
  if (options.json) {
    std::fputs(json(JsonLines::MANY).c_str(), stdout);
  } else {
    const Reply reply = ask_status(server, options);
    std::fputs(status_text(view_of(reply, std::nullopt), {}).c_str(), stdout);
  }
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
