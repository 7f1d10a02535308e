#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "skein/value.h"

namespace pelorus::ctl {

/// What a monitoring plugin ends with.
enum class Health : int { OK = 0, WARNING = 1, CRITICAL = 2, UNKNOWN = 3 };

/// From which values on a database is not well. None: that value is not looked at.
struct Thresholds {
  std::optional<double> queue;     ///< messages that wait
  std::optional<double> failures;  ///< failed writes since the last good one
  std::optional<double> age;       ///< seconds since the last good write

  /// From texts such as "queue=1000,age=60". Throws UsageError.
  static Thresholds parse(const std::vector<std::string>& texts);
};

struct Judgement {
  Health health = Health::OK;
  std::string line;  ///< "WARNING - bonding: …| performance data", without a newline
};

/// Judges the reply to "stats". `only`: the databases that count; all when empty. A database that
/// is missing, or a value that is, makes it UNKNOWN. `now`: seconds since the epoch.
Judgement judge(skein::Value databases, const std::vector<std::string>& only,
                const Thresholds& warning, const Thresholds& critical, double now);

}  // namespace pelorus::ctl
