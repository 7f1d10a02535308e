// pelorusctl as its users meet it: command line and standard input in, words and exit status out.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "skein/errors.h"
#include "skein/socket.h"
#include "support/skein_stub.h"

namespace {

using skein::MsgpackWriter;
using support::SkeinStub;
using testing::AllOf;
using testing::HasSubstr;

class Pelorusctl : public testing::Test {
 protected:
  ~Pelorusctl() override { std::filesystem::remove_all(directory); }

  /// Runs it with `arguments`; `before` stands in front of the shell's command.
  void run(const std::string& arguments, const std::string& input = "",
           const std::string& before = "") {
    std::ofstream(directory + "/input") << input;
    const std::string command =
        before + " timeout 10 " PELORUSCTL " " + arguments + " <" + directory + "/input 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 4096> bytes{};
    output.clear();
    while (const std::size_t count = fread(bytes.data(), 1, bytes.size(), pipe)) {
      output.append(bytes.data(), count);
    }
    status = WEXITSTATUS(pclose(pipe));
  }

  static SkeinStub::Outcome two_databases(const SkeinStub::Call& call) {
    MsgpackWriter result;
    result.map(2);
    result.text("tidewell").map(4).text("has_current_request").boolean(true);
    result.text("pending_data_len").natural(12).text("failure_count").natural(0);
    result.text("last_sent_time").real(1700000000.75);
    result.text("bonding").map(1).text("failure_count").text("many");
    return SkeinStub::reply(call, skein::Reply(std::move(result)));
  }

  const std::string directory = support::make_directory();
  std::string output;
  int status = -1;
};

TEST_F(Pelorusctl, StatsAreATableForPeople) {
  const SkeinStub stub(two_databases);
  run("stats --socket " + stub.path(), "", "TZ=UTC");
  EXPECT_EQ(output,
            "database  writing  waiting  failures  last write\n"
            "tidewell  yes           12         0  2023-11-14 22:13:20\n"
            "bonding   ?              ?         ?  ?\n");
  EXPECT_EQ(status, 0);
}

TEST_F(Pelorusctl, StatsAreJsonForProgrammes) {
  const SkeinStub stub(two_databases);
  run("--socket " + stub.path() + " stats --json");
  EXPECT_THAT(output,
              AllOf(HasSubstr("{\n  \"tidewell\": {\n    \"has_current_request\": true,\n"
                              "    \"pending_data_len\": 12,"),
                    HasSubstr("\"last_sent_time\": 1700000000.75"),
                    HasSubstr("\"bonding\": {\n    \"failure_count\": \"many\"\n  }\n}\n")));
}

TEST_F(Pelorusctl, SendCutsBlocksAtLineEndsAndEndsTheLastLine) {
  SkeinStub stub;
  std::string input;
  for (int i = 0; i < 20000; ++i) input += "m000.load.load.shortterm 0.5 1700000000\n";
  input.pop_back();
  run("send --socket " + stub.path(), input);
  EXPECT_EQ(output, "20000 lines sent\n");
  EXPECT_EQ(status, 0);
  std::string received;
  for (const auto& call : stub.calls()) {
    const std::string& block = call.args.at("metrics");
    EXPECT_LE(block.size(), 65536U);
    EXPECT_EQ(block.back(), '\n');
    EXPECT_FALSE(call.args.contains("key"));
    received += block;
  }
  EXPECT_EQ(received, input + "\n");
  run("send --socket " + stub.path(), "");
  EXPECT_EQ(output, "0 lines sent\n");
}

TEST_F(Pelorusctl, SendRefusesALineThatIsLongerThanABlock) {
  SkeinStub stub;
  const std::string longest = std::string(65535, 'x') + "\n";
  run("send --socket " + stub.path(), "a b 1\n" + longest + std::string(70000, 'y') + "\nz\n");
  EXPECT_THAT(output, AllOf(HasSubstr("2 lines sent, then it failed"),
                            HasSubstr("a line is longer than 65536 bytes")));
  EXPECT_EQ(status, 1);
  EXPECT_EQ(stub.calls().at(1).args.at("metrics"), longest);
}

TEST_F(Pelorusctl, SendToAHostCarriesTheKeyOfTheFileOrTheEnvironment) {
  SkeinStub stub(SkeinStub::Tcp{}, [](const auto& call) { return SkeinStub::reply(call); });
  std::ofstream(directory + "/key") << " 12-ab \nnot the key\n";
  const std::string remote = "send --host 127.0.0.1 --port " + stub.port();
  run(remote + " --key-file " + directory + "/key", "a b 1", "PELORUS_NODE_KEY=34-cd");
  EXPECT_EQ(stub.calls().at(0).args.at("key"), "12-ab");
  run(remote, "a b 1", "PELORUS_NODE_KEY=34-cd");
  EXPECT_EQ(stub.calls().at(1).args.at("key"), "34-cd");
  EXPECT_EQ(status, 0);
}

TEST_F(Pelorusctl, EveryFailureHasItsWordsAndItsStatus) {
  const SkeinStub failing([](const auto& call) { return SkeinStub::error(call, "it is late"); });
  const SkeinStub silent([](const auto&) { return SkeinStub::silence(); });
  const SkeinStub closing([](const auto&) { return SkeinStub::close(); });
  { skein::bind_unix(skein::Socket::stream(AF_UNIX), directory + "/dead"); }
  const struct {
    std::string arguments;
    int status;
    const char* words;
  } rows[] = {
      {"stats --socket " + failing.path(), 7, "pelorusctl: the server answered: it is late\n"},
      {"stats --timeout 0.05 --socket " + silent.path(), 6, "took too long (--timeout)"},
      {"send --socket " + closing.path(), 9, "closed the connection"},
      {"stats --socket " + directory + "/none", 3, "pelorus does not run"},
      {"stats --socket " + directory + "/dead", 4, "nobody listens there"},
      {"stats --socket " + directory + std::string(120, 'x'), 8, "File name too long"},
      {"send --host h", 2, "--host needs a node key"},
      {"send --host h --socket /run/x", 2, "exclude each other"},
      {"send --host h --key-file " + directory + "/none", 1, "cannot read the key file"},
      {"send --port 5", 2, "--port requires --host"},
      {"stats --timeout 0", 2, "--timeout"},
      {"", 2, "subcommand is required"},
      {"frob", 2, "not expected: frob"},
      {"send --kind x", 2, "--kind: x not in {graphite,add,submit}"},
      {"stats --database x", 2, "--database needs"},
      {"--version", 0, "pelorusctl "},
      {"send --help", 0, "  6  time-out\n"},
  };
  for (const auto& row : rows) {
    run(row.arguments, "a b 1\n", "unset PELORUS_NODE_KEY;");
    EXPECT_EQ(status, row.status) << row.arguments;
    EXPECT_THAT(output, HasSubstr(row.words)) << row.arguments;
  }
}

TEST_F(Pelorusctl, SocketOfAnotherAccountIsNotPermitted) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another account";
  const SkeinStub stub(directory + "/socket", two_databases);
  chmod(stub.path().c_str(), 0600);
  chmod(directory.c_str(), 0755);
  run("stats --socket " + stub.path(), "", "setpriv --reuid=65534 --clear-groups");
  EXPECT_EQ(status, 5) << output;
  EXPECT_THAT(output, HasSubstr("only the socket's owner and root may use it"));
}

}  // namespace
