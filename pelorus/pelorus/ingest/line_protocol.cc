#include "pelorus/pelorus/ingest/line_protocol.h"

#include <fmt/format.h>

#include <cmath>
#include <stdexcept>

namespace pelorus {
namespace {

constexpr std::int64_t NANOSECONDS_PER_SECOND = 1'000'000'000;
constexpr double BEYOND_NANOSECONDS = 0x1p127;

}  // namespace

Nanoseconds timestamp_to_influx(std::int64_t timestamp) {
  return Nanoseconds{timestamp} * NANOSECONDS_PER_SECOND;
}

Nanoseconds timestamp_to_influx(double timestamp) {
  const double product = timestamp * static_cast<double>(NANOSECONDS_PER_SECOND);
  if (!(std::fabs(product) < BEYOND_NANOSECONDS)) {
    throw std::domain_error("a time that is no moment has no nanoseconds");
  }
  return static_cast<Nanoseconds>(product);
}

std::string statistics_message(const Statistics& statistics, Nanoseconds now) {
  return fmt::format(
      "proxy_messages value={messages} {now}\nproxy_records value={records} {now}\n"
      "proxy_successful_auths value={successful_auths} {now}\n"
      "proxy_failed_auths value={failed_auths} {now}\n",
      fmt::arg("messages", statistics.messages), fmt::arg("records", statistics.records),
      fmt::arg("successful_auths", statistics.successful_auths),
      fmt::arg("failed_auths", statistics.failed_auths), fmt::arg("now", now));
}

}  // namespace pelorus
