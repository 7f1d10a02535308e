#include "pelorus/pelorus/influx/write_counters.h"

#include <charconv>

namespace pelorus {

std::optional<std::uint64_t> dropped_points(std::string_view answer) {
  constexpr std::string_view LEAD = "dropped=";
  const std::size_t lead = answer.rfind(LEAD);
  if (lead == answer.npos) return std::nullopt;
  const std::string_view digits = answer.substr(lead + LEAD.size());
  std::uint64_t number = 0;
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (result.ec != std::errc()) return std::nullopt;
  return number;
}

}  // namespace pelorus
