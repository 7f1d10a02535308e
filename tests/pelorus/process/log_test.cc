#include "pelorus/pelorus/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <spdlog/details/log_msg.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <stdexcept>
#include <utility>

#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/stderr_sink.h"
#include "support/log_capture.h"
#include "surroundings.h"

namespace pelorus {
namespace {

using namespace std::string_view_literals;
using testing::ContainsRegex, testing::ElementsAre;

class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe2(ends_.data(), O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() {
    close_reader();
    close(ends_[1]);
  }

  int writer() const { return ends_[1]; }
  void close_reader() { close(std::exchange(ends_[0], -1)); }
  std::string content() const {
    std::array<char, 65536> bytes{};
    const auto size = read(ends_[0], bytes.data(), bytes.size());
    return {bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
  }

 private:
  std::array<int, 2> ends_{-1, -1};
};

/// Standard error is this pipe for as long as it lives; the log goes nowhere afterwards.
class StandardError : public Pipe {
 public:
  StandardError() : before_(dup(STDERR_FILENO)) { dup2(writer(), STDERR_FILENO); }
  ~StandardError() {
    dup2(before_, STDERR_FILENO);
    close(before_);
    support::LogCapture();
  }

 private:
  int before_;
};

TEST(Log, LineBeginsWithItsPriorityOrItsTimeAndLevel) {
  const support::Variable zone("TZ", "UTC");
  tzset();
  const auto moment = spdlog::log_clock::from_time_t(1714571100) + std::chrono::milliseconds(7);
  struct Row {
    spdlog::level::level_enum level;
    std::string journal, plain;
  };
  for (const auto& [level, journal, plain] :
       std::vector<Row>{{spdlog::level::debug, "<7>", "debug "},
                        {spdlog::level::info, "<6>", "info "},
                        {spdlog::level::warn, "<4>", "warning "},
                        {spdlog::level::err, "<3>", "error "}}) {
    const Pipe pipe;
    const spdlog::details::log_msg message(moment, {}, "pelorus", level, "two\nlines");
    log::StderrSink(pipe.writer(), log::StderrSink::Prefix::PRIORITY).log(message);
    log::StderrSink(pipe.writer(), log::StderrSink::Prefix::TIME).log(message);
    EXPECT_EQ(pipe.content(),
              journal + "two\\nlines\n2024-05-01 13:45:00.007 " + plain + "two\\nlines\n");
  }
}

TEST(Log, ReaderThatHasStoppedIsNotWaitedForAndLearnsHowMuchItMissed) {
  const Pipe pipe;
  const std::string text(3000, 'x');
  const spdlog::details::log_msg message("pelorus", spdlog::level::info, text);
  log::StderrSink sink(pipe.writer(), log::StderrSink::Prefix::PRIORITY);
  for (int line = 0; line < 1000; ++line) sink.log(message);
  const std::string read = pipe.content();
  const auto got_out = static_cast<std::size_t>(std::ranges::count(read, '\n'));
  EXPECT_LT(got_out, 1000U);
  sink.log(message);
  EXPECT_EQ(pipe.content(), "<6>" + std::to_string(1000 - got_out) +
                                " log lines were dropped: nobody read them\n<6>" + text + "\n");
}

TEST(Log, ControlBytesAndBrokenTextAreEscaped) {
  struct Row {
    std::string_view text, escaped;
  };
  for (const auto& [text, escaped] :
       {Row{"plain \\ 'text'", "plain \\ 'text'"},
        {"\t\n\r", "\\t\\n\\r"},
        {"\0\x1b[2J\x7f"sv, "\\x00\\x1b[2J\\x7f"},
        {"caf\u00e9 \u20ac \U0001F600", "caf\u00e9 \u20ac \U0001F600"},
        {"\xc2\x85\xc2\x9b\xc2\xa0", "\\xc2\\x85\\xc2\\x9b\xc2\xa0"},
        {"\x9b\xff", "\\x9b\\xff"},
        {"\xc3(", "\\xc3("},
        {"\xe2\x82", "\\xe2\\x82"},
        {"\xc0\x8a\xe0\x80\x8a", "\\xc0\\x8a\\xe0\\x80\\x8a"},
        {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"}}) {
    EXPECT_EQ(log::escape_controls(text), escaped);
  }
}

TEST(Log, UnderTheJournalEveryLineOfATraceHasItsPriority) {
  const support::Variable journal("JOURNAL_STREAM", "8:1234");
  const StandardError standard_error;
  log::start();
  const SettingsError failure("a\nb");
  log::exception("Unhandled exception: x", failure);
  std::string expected = "<3>Unhandled exception: x\n<3>pelorus::SettingsError: a\\nb\n";
  for (const auto& frame : failure.trace().lines()) expected += "<3>    " + frame + "\n";
  EXPECT_EQ(standard_error.content(), expected);
}

TEST(Log, TraceOfAnUntracedFailureIsThePresentOne) {
  const auto lines = log::trace_lines(std::out_of_range("index"));
  EXPECT_EQ(lines[0], "std::out_of_range: index");
  EXPECT_GT(lines.size(), 1U);
}

TEST(Log, UnwritableLinesAreLostAndNothingElse) {
  const support::Variable journal("JOURNAL_STREAM", std::nullopt);
  StandardError standard_error;
  log::start();
  const std::string much(1 << 20, 'x');  // more than the pipe holds
  log::error("{}", much);
  EXPECT_FALSE(standard_error.content().empty());
  standard_error.close_reader();
  log::error("nobody reads this");
}

TEST(Log, LevelComesFromTheEnvironment) {
  const StandardError standard_error;
  for (const auto& [name, level] :
       std::map<std::string, spdlog::level::level_enum>{{"debug", spdlog::level::debug},
                                                        {"error", spdlog::level::err},
                                                        {"loud", spdlog::level::info},
                                                        {"warning", spdlog::level::warn}}) {
    const support::Variable variable("PELORUS_LOG_LEVEL", name);
    log::start();
    EXPECT_EQ(log::logger().level(), level) << name;
  }
  EXPECT_THAT(standard_error.content(), ContainsRegex("warning .*\"loud\" is no level.*\n$"));
}

struct Counted {
  int& formatted;
};

}  // namespace
}  // namespace pelorus

template <>
struct fmt::formatter<pelorus::Counted> : fmt::formatter<int> {
  auto format(const pelorus::Counted& counted, fmt::format_context& context) const {
    return fmt::formatter<int>::format(++counted.formatted, context);
  }
};

namespace pelorus {
namespace {

TEST(Log, NothingIsFormattedForALevelThatIsOff) {
  const support::LogCapture log;
  log::logger().set_level(spdlog::level::info);
  int formatted = 0;
  log::debug("{}", Counted{formatted});
  EXPECT_EQ(formatted, 0);
  log::info("{} {{}}", Counted{formatted});
  log::info("{{}}");
  EXPECT_THAT(log.texts("info"), ElementsAre("1 {}", "{}"));
}

}  // namespace
}  // namespace pelorus
