#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pelorus/ctl/command.h"
#include "pelorus/ctl/output.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

constexpr bool RIGHT = Table::RIGHT;

/// An iteration of the event loop that takes at least this long is shown as bad.
constexpr double SLOW_TURN_SECONDS = 0.5;
/// A queue that is full within this time is shown as bad.
constexpr double SOON_FULL_SECONDS = 600;

/// A reply to "status", and the one before if the daemon is watched.
struct View {
  Json status;
  Json before;           ///< null before the second reply
  bool watched = false;  ///< rates are shown
  double now = 0;        ///< seconds since the epoch

  /// Growth of the number at `pointer` per second, in a part of the reply and the same part of the
  /// one before. None before the second reply, and if the daemon was restarted in between.
  std::optional<double> rate(const Json& part, const Json& part_before,
                             const std::string& pointer) const {
    const double seconds = count_at(status, "/uptime") - count_at(before, "/uptime");
    const auto number_before = number_at(part_before, pointer);
    const double growth = count_at(part, pointer) - number_before.value_or(0);
    const bool same_run = count_at(before, "/started") == count_at(status, "/started");
    if (!same_run || seconds <= 0 || !number_before || growth < 0) return std::nullopt;
    return growth / seconds;
  }
};

std::string count_text(const Json& part, const std::string& pointer) {
  return human_count(count_at(part, pointer));
}

Cell problems(const Json& part, const std::string& pointer, const Style& style) {
  return {count_text(part, pointer), count_at(part, pointer) > 0 ? style : FAINT};
}

std::string ago(std::optional<double> moment, double now) {
  return moment ? human_duration(now - *moment) + " ago" : "never";
}

/// "1,234 (56.0 KiB)"
std::string amount_text(const Json& amount) {
  if (count_at(amount, "/messages") == 0) return "0";
  return fmt::format("{} ({})", count_text(amount, "/messages"),
                     human_bytes(count_at(amount, "/bytes")));
}

Cell bad_amount(const Json& amount) {
  return {amount_text(amount), count_at(amount, "/messages") > 0 ? BAD : FAINT};
}

/// "46.3", or "-" if there is none.
Cell rate_cell(std::optional<double> rate) { return {rate ? human_rate(*rate) : "-"}; }

/// "1,234 (46.3/s)"
std::string count_and_rate(const View& view, const std::string& pointer) {
  const auto rate = view.rate(view.status, view.before, pointer);
  return count_text(view.status, pointer) + (rate ? fmt::format(" ({}/s)", human_rate(*rate)) : "");
}

/// "3 (format 1, no_rule 2)"
std::string count_by_name(const Json& counts) {
  double sum = 0;
  std::string parts;
  for (const auto& [name, value] : counts.items()) {
    const double count = count_at(value, "");
    if (count == 0) continue;
    sum += count;
    parts += fmt::format("{}{} {}", parts.empty() ? "" : ", ", name, human_count(count));
  }
  return human_count(sum) + (parts.empty() ? "" : " (" + parts + ")");
}

std::string head(const View& view) {
  const Json& status = view.status;
  const double delay = count_at(status, "/loop_delay");
  const Json& totals = at(status, "/totals");
  const double refused = count_at(totals, "/refused_auths");
  return fmt::format(
      "{}, up {}, since {}\n"
      "longest iteration of the loop in the last minute: {}\n"
      "messages received: {}, records in them: {}\n"
      "keys verified: {} accepted, {}, memory of queues: {} of {}\n"
      "bad lines: {}, refused requests: {}\n"
      "connections ended by a limit or a broken protocol: {}, dropped log lines: {}\n",
      styled(HEADING, "pelorus " + skein::without_controls(text_at(status, "/version"))),
      human_duration(count_at(status, "/uptime")), human_moment(count_at(status, "/started")),
      styled(delay >= SLOW_TURN_SECONDS ? BAD : PLAIN, fmt::format("{:.0f} ms", delay * 1000)),
      count_and_rate(view, "/totals/messages"), count_and_rate(view, "/totals/records"),
      count_text(totals, "/accepted_auths"),
      styled(refused > 0 ? WARNING : PLAIN, human_count(refused) + " refused"),
      human_bytes(count_at(totals, "/queued_memory")),
      human_bytes(count_at(totals, "/max_queued_bytes")), count_by_name(at(totals, "/bad_lines")),
      count_text(totals, "/refused_requests"), count_by_name(at(totals, "/ended_connections")),
      count_text(totals, "/dropped_log_lines"));
}

std::size_t count_lines(const std::string& text) {
  return static_cast<std::size_t>(std::ranges::count(text, '\n'));
}

/// A title, a table and lines about its rows.
struct Section {
  std::string title;  ///< a line, or empty
  Table table;
  std::string notes;  ///< lines

  std::size_t lines() const { return count_lines(title) + table.lines() + count_lines(notes); }
  /// On a low screen, half of it is for the notes if they need that, but not what the table needs
  /// to show one row.
  std::string draw(const Screen& screen) const {
    constexpr std::size_t ONE_ROW = 3;  // the headings, the row, "… and 37 more"
    const std::size_t rows = screen.rows - std::min(count_lines(title), screen.rows);
    const std::size_t spare = rows - std::min(table.lines(), rows);
    const std::size_t half = std::min(rows / 2, rows - std::min(ONE_ROW, rows));
    const std::size_t noted = std::min(count_lines(notes), std::max(spare, half));
    return fitted(title + table.draw({screen.columns, rows - noted}) + notes, screen);
  }
};

Cell until_full(std::optional<double> seconds) {
  if (!seconds) return {"-", FAINT};
  return {human_duration(*seconds), *seconds < SOON_FULL_SECONDS ? BAD : WARNING};
}

/// "16", "unknown", "16, and an unknown number in 2 of these writes"
std::string dropped_points(const Json& database) {
  const std::string named = count_text(database, "/dropped_points");
  if (count_at(database, "/unknown_drops") == 0) return named;
  if (count_at(database, "/dropped_points") == 0) return "unknown";
  return fmt::format("{}, and an unknown number in {} of these writes", named,
                     count_text(database, "/unknown_drops"));
}

/// One line for each kind of failed write of a database.
std::string write_problems(const std::string& name, const Json& database, double now) {
  std::string lines;
  const auto say = [&](const Style& style, const std::string& words) {
    const std::string line = skein::without_controls(fmt::format("  {}: {}", name, words));
    lines += styled(style, line) + "\n";
  };
  if (count_at(database, "/failure_count") > 0) {
    say(BAD, "failed writes since the last good one: " + count_text(database, "/failure_count"));
  }
  if (count_at(database, "/partial_writes") > 0) {
    say(WARNING,
        fmt::format(
            "writes that InfluxDB stored in part: {}, messages: {}; points that it dropped: {}",
            count_text(database, "/partial_writes"), amount_text(at(database, "/partial")),
            dropped_points(database)));
  }
  if (const std::string failure = text_at(database, "/last_failure"); !failure.empty()) {
    say(PLAIN, fmt::format("last failure {}: {}",
                           ago(number_at(database, "/last_failure_time"), now), failure));
  }
  return lines;
}

/// Which databases come first: those that fail now, then those soon full, then those with losses.
int trouble(const Json& database) {
  if (count_at(database, "/failure_count") > 0) return 3;
  const auto seconds = number_at(database, "/seconds_until_full");
  if (seconds && *seconds < SOON_FULL_SECONDS) return 2;
  return count_at(database, "/discarded/messages") + count_at(database, "/failed/messages") > 0 ? 1
                                                                                                : 0;
}

Section databases_section(const View& view) {
  const Json& databases = at(view.status, "/databases");
  const bool growing = std::ranges::any_of(databases, [](const Json& database) {
    return number_at(database, "/seconds_until_full").has_value();
  });
  std::vector<Column> columns{{"database"}, {"waiting", RIGHT, 1}, {"of", RIGHT, 8}};
  if (growing) columns.push_back({"full in", RIGHT, 2});
  columns.push_back({"sent", RIGHT, 7});
  if (view.watched) columns.push_back({"sent/s", RIGHT, 5});
  columns.insert(columns.end(), {{"failed", RIGHT, 3},
                                 {"discarded", RIGHT, 4},
                                 {"largest write", RIGHT, 9},
                                 {"last good write", false, 6}});
  Section section{"", Table(std::move(columns)), ""};
  std::vector<std::pair<std::string, Json>> ordered;
  for (const auto& [name, database] : databases.items()) ordered.emplace_back(name, database);
  std::ranges::stable_sort(ordered, std::ranges::greater(),
                           [](const auto& named) { return trouble(named.second); });
  for (const auto& [name, database] : ordered) {
    const bool failing = count_at(database, "/failure_count") > 0;
    std::vector<Cell> row{{name, failing ? BAD : PLAIN},
                          {amount_text(at(database, "/queued"))},
                          {count_text(database, "/max_pending")}};
    if (growing) row.push_back(until_full(number_at(database, "/seconds_until_full")));
    row.push_back({amount_text(at(database, "/sent"))});
    if (view.watched) {
      row.push_back(
          rate_cell(view.rate(database, database_in(view.before, name), "/sent/messages")));
    }
    // Until the first success, last_sent_time is the start.
    const auto last_sent = count_at(database, "/sent/messages") > 0
                               ? number_at(database, "/last_sent_time")
                               : std::nullopt;
    row.insert(row.end(), {bad_amount(at(database, "/failed")),
                           bad_amount(at(database, "/discarded")),
                           {human_bytes(count_at(database, "/largest_body"))},
                           {ago(last_sent, view.now)}});
    section.table.add(std::move(row));
    section.notes += write_problems(name, database, view.now);
  }
  return section;
}

/// The same connection in the reply before; null if it is missing there.
Json connection_before(const View& view, const std::string& server, const Json& connection) {
  constexpr double SAME_MOMENT = 2;  // seconds: the times of a connection are exact to one
  for (const Json& before : at(view.before, "/" + server + "/connections")) {
    const double later = count_at(connection, "/since") - count_at(before, "/since");
    if (text_at(before, "/address") == text_at(connection, "/address") &&
        std::abs(later) < SAME_MOMENT) {
      return before;
    }
  }
  return nullptr;
}

Section connections_section(const std::string& server, bool with_keys, const View& view) {
  std::vector<Column> columns{{"address"},
                              {"open for", RIGHT, 8},
                              {"last seen", RIGHT, 5},
                              {"requests", RIGHT, 7},
                              {"records", RIGHT, 6}};
  if (view.watched) columns.push_back({"records/s", RIGHT, 3});
  columns.push_back({"bad lines", RIGHT, 1});
  if (with_keys) {
    columns.insert(columns.end(),
                   {{"key", false, 4}, {"accepted", RIGHT, 9}, {"refused", RIGHT, 2}});
  }
  Section section{"", Table(std::move(columns)), ""};
  const Json& connections = at(view.status, "/" + server + "/connections");
  for (const Json& connection : connections) {
    std::vector<Cell> row{{text_at(connection, "/address")},
                          {human_duration(view.now - count_at(connection, "/since"))},
                          {ago(number_at(connection, "/last_seen"), view.now)},
                          {count_text(connection, "/requests")},
                          {count_text(connection, "/records")}};
    if (view.watched) {
      const Json before = connection_before(view, server, connection);
      row.push_back(rate_cell(view.rate(connection, before, "/records")));
    }
    row.push_back(problems(connection, "/bad_lines", WARNING));
    if (with_keys) {
      const std::string ending = text_at(connection, "/key_ending");
      row.push_back({ending.empty() ? "-" : "…" + ending});
      row.push_back({count_text(connection, "/accepted_auths")});
      row.push_back(problems(connection, "/refused_auths", BAD));
    }
    section.table.add(std::move(row));
    if (const std::string warning = text_at(connection, "/last_warning"); !warning.empty()) {
      const std::string line = text_at(connection, "/address") + ": " + warning;
      section.notes += "  " + skein::without_controls(line) + "\n";
    }
  }
  const auto open = static_cast<std::size_t>(count_at(view.status, "/" + server + "/open"));
  section.table.set_more(open - std::min(connections.size(), open));
  section.title = styled(HEADING, fmt::format("{}: {} open", server, open)) + "\n";
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
std::string status_text(const View& view, const Screen& screen) {
  constexpr std::size_t LOW = 20;  // rows: blank lines would take too many
  const std::string gap = screen.rows < LOW ? "" : "\n";
  const std::string top = fitted(head(view), {screen.columns, screen.rows / 3});
  const std::vector<Section> sections{databases_section(view),
                                      connections_section("nodes", true, view),
                                      connections_section("local", false, view)};
  const std::size_t used = count_lines(top) + sections.size() * gap.size();
  const auto shares = shared_rows(sections, screen.rows - std::min(used, screen.rows));
  std::string text = top;
  for (std::size_t i = 0; i < sections.size(); ++i) {
    text += gap + sections[i].draw({screen.columns, shares[i]});
  }
  return fitted(text, screen);
}

struct StatusOptions {
  bool json = false;
  double watch = 0;                ///< seconds between two requests; 0: only one
  std::uint32_t connections = 20;  ///< of each server
  std::string order = "trouble";
};

void run(const ServerOptions& server, const StatusOptions& options) {
  const auto ask_status = [&] {
    skein::MsgpackWriter args;
    args.map(2).text("connections").natural(options.connections);
    args.text("order").text(options.order);
    return ask(server, "status", args);
  };
  if (options.json) {
    if (options.watch > 0) watch_lines(options.watch, [&] { return on_one_line(ask_status()); });
    std::fputs(indented(ask_status()).c_str(), stdout);
    return;
  }
  View view;
  const auto update = [&] {
    Json status = ask_status();
    view.before = std::exchange(view.status, std::move(status));
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    view.now = now.count();
  };
  const auto draw = [&](const Screen& screen) { return status_text(view, screen); };
  view.watched = options.watch > 0;
  if (view.watched) watch(options.watch, update, draw);
  update();
  std::fputs(draw({}).c_str(), stdout);
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
