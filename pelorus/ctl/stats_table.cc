#include "pelorus/ctl/human.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/stats.h"
#include "pelorus/ctl/table.h"

namespace pelorus::ctl {
namespace {

std::string yes_or_no(const Reading& value) {
  const auto boolean = value.boolean();
  return boolean ? (*boolean ? "yes" : "no") : "?";
}

std::string count(const Reading& value) {
  const auto number = value.number();
  return number ? human_count(*number) : "?";
}

std::string moment(const Reading& value) {
  const auto number = value.number();
  return number ? human_moment(*number) : "?";
}

}  // namespace

std::string stats_table(skein::Value databases, const Palette& palette) {
  using enum Table::Side;
  Table table({{"database"}, {"writing"}, {"waiting", RIGHT}, {"failures", RIGHT}, {"last write"}});
  Reading(databases).each_pair([&](const std::string& name, const Reading& stats) {
    const Reading failures = stats["failure_count"];
    table.add({{name},
               {yes_or_no(stats["has_current_request"])},
               {count(stats["pending_data_len"])},
               {count(failures), failures.amount() > 0 ? Tone::BAD : Tone::PLAIN},
               {moment(stats["last_sent_time"])}});
  });
  return table.draw(palette);
}

}  // namespace pelorus::ctl
