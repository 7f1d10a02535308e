#include "pelorus/pelorus/listen/status.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <vector>

#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/log.h"
#include "skein/errors.h"

namespace pelorus {
namespace {

using Member = ConnectionGroup::Member;
using skein::MsgpackWriter;
using skein::Value;

constexpr std::size_t USUAL_CONNECTIONS = 100;
/// Listing so many takes a few milliseconds, and less than 2 MiB.
constexpr std::size_t MOST_CONNECTIONS = 2000;

constexpr std::uint64_t LAST = std::numeric_limits<std::uint64_t>::max();

/// In the order of BadLineKind.
constexpr std::array<std::string_view, BadLineCounts().size()> BAD_LINE_KINDS{
    "format", "source", "no_rule", "refused", "unexpected", "submit"};
/// In the order of skein::EndReason.
constexpr std::array<std::string_view, skein::END_REASONS> REASONS{
    "protocol", "held_bytes", "connections", "half_frame", "unsent_replies", "line_bytes"};

struct OrderRow {
  std::string_view name;
  ConnectionChoice::Rank rank;
};

using Ranks = std::array<std::uint64_t, 2>;

/// The first one is the order that is taken unless the asker names one.
constexpr std::array<OrderRow, 4> ORDERS{{
    {"trouble",
     [](const Member& m) {
       const auto& errors = m.session->counters.errors();
       return Ranks{errors.bad_lines + errors.refused_auths,
                    LAST - m.connection->traffic().last_seen};
     }},
    {"records",
     [](const Member& m) {
       return Ranks{m.session->counters.records(), m.connection->traffic().requests};
     }},
    {"silent",
     [](const Member& m) {
       return Ranks{LAST - m.connection->traffic().last_seen, 0};
     }},
    {"newest",
     [](const Member& m) {
       return Ranks{m.connection->traffic().since, 0};
     }},
}};

ConnectionChoice::Rank rank_named(std::string_view name) {
  for (const OrderRow& row : ORDERS) {
    if (row.name == name) return row.rank;
  }
  throw skein::RequestError(
      "argument 'order' of request 'status' must be trouble, records, silent or newest");
}

/// The chosen connections of a group, in order.
std::vector<Member> choose(const ConnectionGroup& group, const ConnectionChoice& choice) {
  std::vector<Member> chosen(std::min(choice.most, group.members.size()));
  std::ranges::partial_sort_copy(group.members, chosen, [&](const Member& a, const Member& b) {
    return choice.rank(a) > choice.rank(b);
  });
  return chosen;
}

void write_moment(MsgpackWriter& out, std::uint32_t moment, skein::Loop& loop) {
  const std::uint32_t now = loop.seconds();
  out.real(loop.clocks().wall() - static_cast<double>(now - std::min(now, moment)));
}

void write_connection(MsgpackWriter& out, const Member& member, const ConnectionGroup& group,
                      skein::Loop& loop) {
  const SessionCounters& counters = member.session->counters;
  const skein::Connection::Traffic& traffic = member.connection->traffic();
  out.map(10).text("address").text(group.address(member));
  write_moment(out.text("since"), traffic.since, loop);
  write_moment(out.text("last_seen"), traffic.last_seen, loop);
  out.text("requests").natural(traffic.requests);
  out.text("records").natural(counters.records());
  out.text("bad_lines").natural(counters.errors().bad_lines);
  out.text("last_warning").text(counters.errors().last_warning);
  out.text("accepted_auths").natural(counters.accepted_auths());
  out.text("refused_auths").natural(counters.errors().refused_auths);
  out.text("key_ending").text(counters.key_ending());
}

void write_group(MsgpackWriter& out, const ConnectionGroup& group, const ConnectionChoice& choice,
                 skein::Loop& loop) {
  const auto chosen = choose(group, choice);
  out.text(group.name).map(2).text("open").natural(group.members.size());
  out.text("connections").list(chosen.size());
  for (const Member& member : chosen) write_connection(out, member, group, loop);
}

void write_amount(MsgpackWriter& out, std::string_view name, const Amount& amount) {
  out.text(name).map(2).text("messages").natural(amount.messages);
  out.text("bytes").natural(amount.bytes);
}

void write_database(MsgpackWriter& out, const InfluxDatabase& database,
                    const InfluxHandler& influx_handler) {
  const WriteCounters& counters = database.counters();
  out.text(database.name()).map(16);
  out.text("max_pending").natural(database.max_pending_messages());
  write_amount(out, "queued", counters.queued);
  write_amount(out, "in_flight", counters.in_flight);
  write_amount(out, "sent", counters.sent);
  write_amount(out, "partial", counters.partial);
  write_amount(out, "failed", counters.failed);
  write_amount(out, "discarded", counters.discarded);
  out.text("failure_count").integer(database.failure_count());
  out.text("last_sent_time").real(database.last_sent_time());
  out.text("largest_body").natural(counters.largest_body);
  out.text("partial_writes").natural(counters.partial_writes);
  out.text("dropped_points").natural(counters.dropped_points);
  out.text("unknown_drops").natural(counters.unknown_drops);
  out.text("last_failure").text(counters.last_failure ? counters.last_failure->text : "");
  const double failed_at = counters.last_failure ? counters.last_failure->time : 0;
  counters.last_failure ? out.text("last_failure_time").real(failed_at)
                        : out.text("last_failure_time").nil();
  const auto seconds = influx_handler.seconds_until_full(database);
  seconds ? out.text("seconds_until_full").real(*seconds) : out.text("seconds_until_full").nil();
}

void write_databases(MsgpackWriter& out, const InfluxHandler& influx_handler) {
  out.text("databases").map(influx_handler.databases().size());
  for (const auto& database : influx_handler.databases()) {
    write_database(out, *database, influx_handler);
  }
}

template <std::size_t SIZE>
void write_counts(MsgpackWriter& out, std::string_view name,
                  const std::array<std::string_view, SIZE>& names,
                  const std::array<std::uint64_t, SIZE>& counts) {
  out.text(name).map(SIZE);
  for (std::size_t i = 0; i < SIZE; ++i) out.text(names[i]).natural(counts[i]);
}

void write_totals(MsgpackWriter& out, const StatusSources& sources) {
  const Statistics totals = sources.influx_handler.totals();
  out.text("totals").map(10);
  out.text("messages").integer(totals.messages).text("records").integer(totals.records);
  out.text("queued_memory").natural(sources.influx_handler.queued_memory());
  out.text("max_queued_bytes").natural(sources.influx_handler.max_queued_bytes());
  out.text("accepted_auths").integer(totals.successful_auths);
  out.text("refused_auths").integer(totals.failed_auths);
  out.text("refused_requests").natural(sources.peers.refused_requests);
  out.text("dropped_log_lines").natural(log::dropped_lines());
  write_counts(out, "bad_lines", BAD_LINE_KINDS, sources.influx_handler.bad_lines());
  write_counts(out, "ended_connections", REASONS, sources.peers.ended_connections);
}

}  // namespace

ConnectionChoice ConnectionChoice::of(const skein::Request& request) {
  ConnectionChoice choice{USUAL_CONNECTIONS, ORDERS.front().rank};
  if (const auto most = request.args.find("connections")) {
    if (!most->is(Value::Type::UNSIGNED)) {
      throw skein::RequestError("argument 'connections' of request 'status' is no number");
    }
    choice.most = std::min<std::uint64_t>(most->natural(), MOST_CONNECTIONS);
  }
  if (request.args.find("order")) choice.rank = rank_named(request.text("order"));
  return choice;
}

MsgpackWriter write_status(const StatusSources& sources, const ConnectionChoice& choice) {
  const skein::Clocks& clocks = sources.loop.clocks();
  const std::chrono::duration<double> uptime = clocks.monotonic() - sources.started.monotonic;
  const std::chrono::duration<double> longest_iteration = sources.loop.longest_iteration();
  MsgpackWriter out;
  out.map(6 + sources.groups.size());
  out.text("version").text(PELORUS_VERSION);
  out.text("started").real(sources.started.wall);
  out.text("uptime").real(uptime.count());
  out.text("loop_delay").real(longest_iteration.count());
  write_totals(out, sources);
  write_databases(out, sources.influx_handler);
  for (const ConnectionGroup& group : sources.groups) {
    write_group(out, group, choice, sources.loop);
  }
  return out;
}

}  // namespace pelorus
