// The settings: each group is read or refused with a SettingsError, which shows no value.
#include "pelorus/pelorus/settings.h"

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/errors.h"

namespace fuzz {
namespace {

/// Stands in values of the seeds, and is to be found in no message.
constexpr std::string_view SECRET = "sEcReT";

template <class Read>
void read_or_refuse(Read&& read) {
  try {
    read();
  } catch (const pelorus::SettingsError& failure) {
    const std::string_view text = failure.what();
    require(text.find(SECRET) == text.npos, "no value is shown");
    require(text.find("the-source") != text.npos, "the source is named");
  }
}

void read_groups(std::string_view json) {
  using namespace pelorus;
  const auto settings = Settings::from_text(json, "the-source");
  read_or_refuse([&] {
    const auto buffer = BufferSettings::read(settings);
    require(buffer.max_pending_messages > 0 && buffer.max_batch_size > 0 && buffer.discard_size > 0,
            "a queue can hold, send and drop something");
    require(buffer.max_buffer_time >= 0 && buffer.max_buffer_time <= 1e308, "a time that passes");
  });
  read_or_refuse([&] {
    const auto connection = InfluxConnection::read(settings);
    require(!connection.auth.empty() && !connection.host.empty() && connection.port != 0,
            "there is somewhere to connect to");
    const auto head = connection.auth + connection.http_connection;
    require(head.find_first_of("\r\n ") == head.npos, "a head cannot be broken up");
  });
  read_or_refuse([&] { settings.get<std::vector<std::string>>("INFLUX_DATABASES"); });
  read_or_refuse([&] { settings.get<std::string>("PELORUS_SERVER"); });
  read_or_refuse([&] { settings.get<std::int64_t>("PELORUS_PORT"); });
}

}  // namespace

void run(std::string_view input) {
  read_or_refuse([&] { read_groups(input); });
}

}  // namespace fuzz
