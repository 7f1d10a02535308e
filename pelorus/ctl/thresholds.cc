#include "pelorus/ctl/thresholds.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "pelorus/ctl/human.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/server_options.h"
#include "pelorus/ctl/terminal.h"

namespace pelorus::ctl {
namespace {

struct Measure {
  const char* name;    ///< in a threshold, and in the performance data
  const char* key;     ///< in the reply
  const char* phrase;  ///< what is wrong, around the value
  std::optional<double> Thresholds::*threshold;
};

constexpr std::array<Measure, 3> MEASURES{{
    {"queue", "pending_data_len", "messages waiting: {:.0f}", &Thresholds::queue},
    {"failures", "failure_count", "failed writes: {:.0f}", &Thresholds::failures},
    {"age", "last_sent_time", "seconds since the last good write: {:.0f}", &Thresholds::age},
}};

constexpr std::array<const char*, 4> HEALTH_NAMES{"OK", "WARNING", "CRITICAL", "UNKNOWN"};

void parse_one(std::string_view text, Thresholds& thresholds) {
  const std::size_t sign = text.find('=');
  const auto* measure = std::find_if(MEASURES.begin(), MEASURES.end(), [&](const Measure& known) {
    return text.substr(0, sign) == known.name;
  });
  double number = 0;
  const char* const end = text.data() + text.size();
  if (measure != MEASURES.end() && sign != text.npos) {
    const auto result = std::from_chars(text.data() + sign + 1, end, number);
    if (result.ec == std::errc() && result.ptr == end && std::isfinite(number)) {
      thresholds.*(measure->threshold) = number;
      return;
    }
  }
  throw UsageError(fmt::format("'{}' is no threshold: queue=N, failures=N or age=SECONDS", text));
}

/// Puts together what is said of all databases.
class Verdict {
 public:
  void find(Health health, std::string words) {
    health_ = std::max(health_, health);
    if (!findings_.empty()) findings_ += ", ";
    findings_ += words;
  }
  void measure(const std::string& database, const Measure& measure, double value,
               const Thresholds& warning, const Thresholds& critical) {
    const auto warn = warning.*(measure.threshold);
    const auto crit = critical.*(measure.threshold);
    if (crit && value >= *crit) {
      find(Health::CRITICAL, words_of(database, measure, value, *crit));
    } else if (warn && value >= *warn) {
      find(Health::WARNING, words_of(database, measure, value, *warn));
    }
    const auto shown = [](auto limit) { return limit ? fmt::format("{:g}", *limit) : ""; };
    performance_ +=
        fmt::format(" '{}_{}'={:.0f}{};{};{};0", database, measure.name, value,
                    measure.threshold == &Thresholds::age ? "s" : "", shown(warn), shown(crit));
  }
  Judgement judgement(std::size_t databases) const {
    const std::string well =
        human_number_of("database", databases) + (databases == 1 ? " is well" : " are well");
    return {health_, fmt::format("{} - {}{}{}", HEALTH_NAMES.at(static_cast<std::size_t>(health_)),
                                 findings_.empty() ? well : findings_,
                                 performance_.empty() ? "" : " |", performance_)};
  }

 private:
  static std::string words_of(const std::string& database, const Measure& measure, double value,
                              double limit) {
    return fmt::format("{}: {} (limit {:g})", database,
                       fmt::format(fmt::runtime(measure.phrase), value), limit);
  }

  Health health_ = Health::OK;
  std::string findings_;
  std::string performance_;
};

/// A name as it may stand in the one line: nothing that ends the words or the quotation.
std::string plain_name(std::string name) {
  name = without_controls(name);
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '|' || c == '\'' || c == '='; }, '_');
  return name;
}

}  // namespace

Thresholds Thresholds::parse(const std::vector<std::string>& texts) {
  Thresholds thresholds;
  for (const std::string& text : texts) parse_one(text, thresholds);
  return thresholds;
}

Judgement judge(skein::Value databases, const std::vector<std::string>& only,
                const Thresholds& warning, const Thresholds& critical, double now) {
  Verdict verdict;
  std::vector<std::string> seen;
  Reading(databases).each_pair([&](const std::string& name, const Reading& stats) {
    if (!only.empty() && std::ranges::find(only, name) == only.end()) return;
    seen.push_back(name);
    for (const Measure& measure : MEASURES) {
      const auto number = stats[measure.key].number();
      if (!number) {
        verdict.find(Health::UNKNOWN,
                     fmt::format("{}: no {} in the answer", plain_name(name), measure.key));
        continue;
      }
      const bool is_age = measure.threshold == &Thresholds::age;
      verdict.measure(plain_name(name), measure, is_age ? std::fmax(now - *number, 0) : *number,
                      warning, critical);
    }
  });
  for (const std::string& name : only) {
    if (std::ranges::find(seen, name) == seen.end()) {
      verdict.find(Health::UNKNOWN, fmt::format("{}: no such database", plain_name(name)));
    }
  }
  if (seen.empty() && only.empty()) verdict.find(Health::UNKNOWN, "no databases");
  return verdict.judgement(seen.size());
}

}  // namespace pelorus::ctl
