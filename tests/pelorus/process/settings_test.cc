#include "pelorus/pelorus/settings.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <functional>

#include "pelorus/pelorus/errors.h"

namespace pelorus {
namespace {

template <class Action>
std::string message_of(Action action) {
  try {
    action();
  } catch (const SettingsError& failure) {
    return failure.what();
  }
  return "no failure";
}

Settings settings_of(const std::string& json) { return Settings::from_text(json, "the source"); }

TEST(Settings, UnreadableTextIsNamedByPlaceWithoutItsContent) {
  for (const auto& row : std::vector<std::pair<std::string, std::string>>{
           {"", "are no valid JSON: line 1, column 1 (byte 1)"},
           {"{\"KEY\":\n  \"hunter2\" hunter2}", "are no valid JSON: line 2, column 13 (byte 21)"},
           {"{\"KEY\": \"hunter2\n\"}", "are no valid JSON: line 1, column 17 (byte 17)"},
           {"{\"hunter2\": 1e999}", "hold a number out of range"},
           {"[\"hunter2\"]", "are no JSON object"}}) {
    EXPECT_EQ(message_of([&] { settings_of(row.first); }),
              "The settings in the source " + row.second);
  }
}

TEST(Settings, MissingAndWronglyTypedValuesAreNamedByKeyAndSource) {
  const Settings settings = settings_of(
      R"({"text": "hunter2", "no": 4711, "yes": true, "half": 4711.5, "big": 9223372036854775808,
          "list": ["hunter2"], "nameless": [{"name": "hunter2"}, {"name": 4711}]})");
  const auto integer = [&](auto key) { settings.get<std::int64_t>(key); };
  const auto number = [&](auto key) { settings.get<double>(key); };
  const auto text = [&](auto key) { settings.get<std::string>(key); };
  const auto databases = [&](auto key) { settings.get<std::vector<DatabaseRecord>>(key); };
  struct Row {
    const char* key;
    std::function<void(const char*)> get;
    std::string message = "Setting gone is missing in the source";
  };
  const std::string list = "must be a list of maps that have a text under \"name\"";
  for (const Row& row : {Row{"gone", integer},
                         {"gone", databases},
                         {"text", integer, "Setting text in the source must be an integer"},
                         {"yes", integer, "Setting yes in the source must be an integer"},
                         {"half", integer, "Setting half in the source must be an integer"},
                         {"big", integer, "Setting big in the source must be an integer"},
                         {"yes", number, "Setting yes in the source must be a number"},
                         {"no", text, "Setting no in the source must be text"},
                         {"text", databases, "Setting text in the source " + list},
                         {"list", databases, "Setting list in the source " + list},
                         {"nameless", databases, "Setting nameless in the source " + list}}) {
    EXPECT_EQ(message_of([&] { row.get(row.key); }), row.message);
  }
}

/// Five good buffer values with one of them replaced.
BufferSettings buffer_with(const std::string& key, const std::string& value) {
  return BufferSettings::read(settings_of(fmt::format(
      R"({{"PELORUS_MAX_PENDING_MESSAGES": 5000, "PELORUS_BUFFER_TIME": 2.5,
           "PELORUS_IDEAL_QUEUED_MESSAGES": 100, "PELORUS_MAX_BATCH_SIZE": 1000,
           "PELORUS_DISCARD_SIZE": 500, "{}": {}}})",
      key, value)));
}

TEST(BufferSettings, SenselessValuesAreRefusedByKey) {
  struct Row {
    const char *key, *value, *demand;
  };
  for (const Row& row : {Row{"PELORUS_MAX_PENDING_MESSAGES", "0", "1 or more"},
                         {"PELORUS_MAX_PENDING_MESSAGES", "true", "an integer"},
                         {"PELORUS_BUFFER_TIME", "-0.5", "0 or more seconds"},
                         {"PELORUS_BUFFER_TIME", "false", "a number"},
                         {"PELORUS_IDEAL_QUEUED_MESSAGES", "-1", "0 or more"},
                         {"PELORUS_MAX_BATCH_SIZE", "0", "1 or more"},
                         {"PELORUS_DISCARD_SIZE", "-7", "1 or more"}}) {
    EXPECT_EQ(message_of([&] { buffer_with(row.key, row.value); }),
              fmt::format("Setting {} in the source must be {}", row.key, row.demand));
  }
}

InfluxConnection connection_of(const std::string& auth, const std::string& http_connection) {
  return InfluxConnection::read(settings_of(fmt::format(
      R"({{"INFLUX_AUTH": "{}", "INFLUX_HTTP_CONNECTION": "{}"}})", auth, http_connection)));
}

TEST(InfluxConnection, EndpointIsHostAndPort) {
  struct Row {
    const char *text, *host;
    int port;
  };
  for (const Row& row : {Row{"influx.example", "influx.example", 80},
                         {"127.0.0.1:8086", "127.0.0.1", 8086},
                         {"influx:65535", "influx", 65535},
                         {"[::1]", "::1", 80},
                         {"[2001:db8::1]:8086", "2001:db8::1", 8086}}) {
    const InfluxConnection connection = connection_of("dXNlcg==", row.text);
    EXPECT_EQ(connection.host, row.host);
    EXPECT_EQ(connection.port, row.port);
    EXPECT_EQ(connection.http_connection, row.text);
    EXPECT_EQ(connection.auth, "dXNlcg==");
  }
}

TEST(InfluxConnection, WhatIsNoEndpointIsRefused) {
  for (const char* text : {":8086", "influx:", "influx:0", "influx:65536", "influx:80a",
                           "influx:-1", "http://influx", "influx/write", "user@influx", "::1",
                           "[::1", "[::1]8086", "[influx]:80", "[]:80", "influx]"}) {
    EXPECT_EQ(message_of([&] { connection_of("dXNlcg==", text); }),
              "Setting INFLUX_HTTP_CONNECTION in the source must be host, host:port, [v6] or "
              "[v6]:port")
        << text;
  }
}

TEST(InfluxConnection, WhatWouldBreakTheRequestHeadIsRefused) {
  for (const char* text : {"", "hunter2\\r\\nX:1", "hunter2 ", "\\thunter2", "hunter2\\u0000",
                           "hunter2\\u007f", "hunter\\u00e9"}) {
    EXPECT_EQ(message_of([&] { connection_of(text, "influx"); }),
              "Setting INFLUX_AUTH in the source must be visible ASCII characters");
    EXPECT_EQ(message_of([&] { connection_of("dXNlcg==", text); }),
              "Setting INFLUX_HTTP_CONNECTION in the source must be visible ASCII characters");
  }
}

}  // namespace
}  // namespace pelorus
