#include "pelorus/pelorus/settings.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace pelorus {
namespace {

// What is refused, and in which words, is for the tests of `pelorusctl check`.
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
    const auto connection = InfluxConnection::read(Settings::from_text(
        fmt::format(R"({{"INFLUX_AUTH": "dXNlcg==", "INFLUX_HTTP_CONNECTION": "{}"}})", row.text),
        "the source"));
    EXPECT_EQ(connection.host, row.host);
    EXPECT_EQ(connection.port, row.port);
    EXPECT_EQ(connection.http_connection, row.text);
    EXPECT_EQ(connection.auth, "dXNlcg==");
  }
}

}  // namespace
}  // namespace pelorus
