// The plugin inside a real collectd, in the foreground, with a directory of its own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "skein/client_stream.h"
#include "support/skein_stub.h"

namespace {

using namespace std::chrono_literals;
using support::SkeinStub;
using testing::HasSubstr;
using testing::Not;

class Collectd : public testing::Test {
 protected:
  ~Collectd() override {
    if (process != 0) kill(process, SIGKILL), waitpid(process, nullptr, 0);
    std::filesystem::remove_all(directory);
  }

  void configure(const std::string& nodes) {
    std::ofstream(directory + "/conf")
        << "Hostname \"m000\"\nInterval 300\nWriteThreads 1\nBaseDir \"" << directory
        << "\"\nPIDFile \"" << directory << "/pid\"\n"
        << "LoadPlugin unixsock\n<Plugin unixsock>\n  SocketFile \"" << directory
        << "/commands\"\n</Plugin>\n"
        << "PluginDir \"" << WRITE_SKEIN_DIRECTORY << "\"\n"
        << "LoadPlugin write_skein\n<Plugin write_skein>\n"
        << nodes << "\n</Plugin>\n";
  }

  void start(const char* mode) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::string conf = directory + "/conf";
    std::array<char*, 5> arguments{const_cast<char*>(COLLECTD), const_cast<char*>(mode),
                                   const_cast<char*>("-C"), conf.data(), nullptr};
    ASSERT_EQ(posix_spawn(&process, COLLECTD, &actions, nullptr, arguments.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
  }

  /// The exit status, once it has ended by itself or by `signal`.
  int end(int signal = 0) {
    if (signal != 0) kill(process, signal);
    int status = 0;
    for (int i = 0; i < 1000 && waitpid(process, &status, WNOHANG) == 0; ++i) {
      std::this_thread::sleep_for(10ms);
    }
    process = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  /// Gives a command to collectd itself; the answer begins with "0" when it did it.
  std::string command(const std::string& text) {
    const auto deadline = skein::Waiter::Clock::now() + 10s;
    const auto endpoint = skein::Endpoint::unix_socket(directory + "/commands");
    while (!std::filesystem::exists(endpoint.path()) && skein::Waiter::Clock::now() < deadline) {
      std::this_thread::sleep_for(10ms);
    }
    const skein::Waiter waiter;
    skein::ClientStream stream(endpoint, waiter, deadline);
    stream.send(text + "\n", deadline);
    std::string answer;
    stream.receive(answer, 1, deadline);
    return answer;
  }

  /// Has collectd flush until `text` has come. A flush may overtake values that collectd's own
  /// threads still hold.
  std::string flushed(SkeinStub& stub, const std::string& text) {
    std::string metrics;
    for (int i = 0; i < 100 && metrics.find(text) == std::string::npos; ++i) {
      EXPECT_EQ(command("FLUSH timeout=0"), "0");
      metrics = stub.metrics_with(text, 100ms);
    }
    return metrics;
  }

  std::string logged() const {
    std::ostringstream text;
    text << std::ifstream(log).rdbuf();
    return text.str();
  }

  const std::string directory = support::make_directory();
  const std::string log = directory + "/log";
  pid_t process = 0;
};

TEST_F(Collectd, TakesGoodAndRefusesBadConfigurations) {
  std::ofstream(directory + "/key") << "1234-abcd\n";
  const std::string key_file = "Host \"h\"\nNodeKeyFile \"" + directory;
  const struct {
    std::string node;
    std::string complaint;  ///< empty: good
  } rows[] = {
      {"Socket \"/run/a\"\nStoreRates false\nQueueLimit 131072", ""},
      {"Host \"10.1.2.3\"\nPort 8995\nNodeKey \"12-ab\"\nSendTimeout 2", ""},
      {key_file + "/key\"\nPort \"8995\"", ""},
      {"", "Node \"a\": needs a Socket or a Host"},
      {"Socket \"/run/a\"\nHost \"h\"", "Node \"a\": has both a Socket and a Host"},
      {"Socket \"/run/a\"\nPort 1", "has a Port, but no Host"},
      {"Socket \"/run/a\"\nNodeKey \"12\"", "has a key, which goes with a Host only"},
      {"Socket \"run/a\"", "Socket needs an absolute path"},
      {"Socket 7", "Socket needs one text in quotes"},
      {"Host \"h\"\nPort 65536", "Port needs a whole number from 1 to 65535"},
      {"Host \"h\"\nPort \"http\"", "Port needs a number from 1 to 65535"},
      {"Host \"h\"\nStoreRates \"maybe\"", "StoreRates needs true or false"},
      {"Host \"h\"\nQueueLimit 1000", "QueueLimit needs a whole number from 131072"},
      {"Host \"h\"\nNodeKey \"secret key\"", "NodeKey holds blanks"},
      {"Host \"h\"\nColour \"red\"", "Node \"a\": Colour is no option of a node"},
      {key_file + "/none\"", "cannot read the key file"},
      {key_file + "/key\"\nNodeKey \"12\"", "stands beside another key"},
      {"Socket \"/run/a\"\n</Node>\n<Node \"a\">\nHost \"h\"", "Node \"a\": there are two"},
  };
  for (const auto& row : rows) {
    configure("<Node \"a\">\n" + row.node + "\n</Node>");
    start("-T");  // its -t reads no configuration at all
    EXPECT_EQ(end(), row.complaint.empty() ? 0 : 1) << row.node;
    EXPECT_THAT(logged(), HasSubstr(row.complaint));
    EXPECT_THAT(logged(), Not(HasSubstr("secret")));
  }
}

TEST_F(Collectd, SendsRatesOrCountsOnFlushAndAtTheEnd) {
  SkeinStub rates;
  SkeinStub counts(SkeinStub::Tcp{}, [](const auto& call) { return SkeinStub::reply(call); });
  configure("<Node \"rates\">\nSocket \"" + rates.path() + "\"\n</Node>\n<Node \"counts\">\n" +
            "Host \"127.0.0.1\"\nPort " + counts.port() +
            "\nNodeKey \"12-ab\"\nStoreRates false\n</Node>");
  start("-f");
  EXPECT_EQ(command("PUTVAL m000/load/load interval=10 1700000000:0.5:2:U"), "0");
  EXPECT_EQ(command("PUTVAL m000/interface-eth0/if_octets interval=10 1700000000:100:7"), "0");
  EXPECT_EQ(command("PUTVAL m000/interface-eth0/if_octets interval=10 1700000010:300:7"), "0");
  const std::string first = flushed(rates, "tx ");
  EXPECT_THAT(first, HasSubstr("m000.load.load.shortterm 0.5 1700000000\n"
                               "m000.load.load.midterm 2.0 1700000000\n"));
  EXPECT_THAT(first, HasSubstr("m000.interface-eth0.if_octets.rx 20.0 1700000010\n"
                               "m000.interface-eth0.if_octets.tx 0.0 1700000010\n"));
  EXPECT_THAT(first, Not(HasSubstr("longterm")));
  EXPECT_THAT(flushed(counts, "1700000010"),
              HasSubstr("m000.interface-eth0.if_octets.rx 300 1700000010\n"));
  EXPECT_EQ(counts.calls(1).at(0).args.at("key"), "12-ab");
  EXPECT_EQ(command("PUTVAL m000/uptime/uptime interval=10 1700000020:5"), "0");
  EXPECT_EQ(end(SIGTERM), 0);
  EXPECT_THAT(rates.metrics_with("uptime"), HasSubstr("m000.uptime.uptime.value 5.0 1700000020\n"));
}

}  // namespace
