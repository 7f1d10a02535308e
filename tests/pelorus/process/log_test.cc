#include "pelorus/pelorus/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spdlog/details/log_msg.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <random>
#include <stdexcept>

#include "pelorus/pelorus/log_pacer.h"
#include "pelorus/pelorus/stderr_sink.h"
#include "support/turn_until.h"
#include "surroundings.h"

namespace pelorus {
namespace {

class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe2(ends_.data(), O_NONBLOCK | O_CLOEXEC), 0); }
  ~Pipe() {
    for (const int end : ends_) close(end);
  }

  int writer() const { return ends_[1]; }
  std::string content() const {
    std::array<char, 65536> bytes{};
    const auto size = read(ends_[0], bytes.data(), bytes.size());
    return {bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
  }

 private:
  std::array<int, 2> ends_{-1, -1};
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
    for (const auto prefix : {log::StderrSink::Prefix::PRIORITY, log::StderrSink::Prefix::TIME}) {
      log::StderrSink sink(pipe.writer(), prefix);
      sink.log(message);
      sink.flush();
    }
    EXPECT_EQ(pipe.content(),
              journal + "two\\nlines\n2024-05-01 13:45:00.007 " + plain + "two\\nlines\n");
  }
}

/// Numbered lines through a sink into a small pipe, and what came out of it.
class NumberedLines {
 public:
  explicit NumberedLines(const Pipe& pipe) : pipe_(pipe), sink_(pipe.writer(), Prefix::PRIORITY) {
    fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
  }

  void log_record(std::size_t lines, std::size_t bytes) {
    for (std::size_t i = 0; i < lines; ++i) {
      const auto text = fmt::format("{} {} {:x>{}}", logged++, lines - i, "", bytes);
      sink_.log({"pelorus", spdlog::level::info, text});
    }
    sink_.flush();
  }
  void drop(std::size_t lines) {
    sink_.drop(lines);
    logged += lines;
  }
  /// Reads what is there. Every line that is missing stands in the count of the notice in its
  /// place.
  void read() {
    text_ += pipe_.content();
    for (std::size_t end = 0; (end = text_.find('\n')) != text_.npos; text_.erase(0, end + 1)) {
      std::size_t number = 0, of_record = 0;
      const std::string line = text_.substr(0, end);
      if (sscanf(line.c_str(), "<4>%zu log lines were dropped", &number) == 1) {
        EXPECT_EQ(expected_of_record_, 0U) << "within a record: " << line;
        next_ += number;
        dropped += number;
        continue;
      }
      ASSERT_EQ(sscanf(line.c_str(), "<6>%zu %zu ", &number, &of_record), 2) << line.substr(0, 99);
      ASSERT_EQ(number, next_++);
      ASSERT_TRUE(expected_of_record_ == 0 || of_record == expected_of_record_) << number;
      expected_of_record_ = of_record - 1;
    }
  }
  void read_all() {
    while (next_ < logged && !testing::Test::HasFailure()) {
      sink_.pace();
      read();
    }
  }

  std::size_t logged = 0, dropped = 0;

 private:
  using Prefix = log::StderrSink::Prefix;
  const Pipe& pipe_;
  log::StderrSink sink_;
  std::string text_;                    ///< the begin of a line
  std::size_t next_ = 0;                ///< number of the next line
  std::size_t expected_of_record_ = 0;  ///< lines that its record must still have
};

TEST(Log, EveryLineComesOrIsCountedAndRecordsStayWhole) {
  std::minstd_rand random(1);
  for (const std::size_t bytes : {10U, 900U}) {
    const Pipe pipe;
    NumberedLines lines(pipe);
    for (int step = 0; step < 4000; ++step) {
      lines.log_record(1 + random() % 30, random() % bytes);
      if (random() % 500 == 0) lines.log_record(2, 100'000);
      if (random() % 1000 == 0) lines.drop(1 + random() % 1000);
      if (step % 2000 < 600) lines.read();  // then it stops for a while
    }
    lines.read_all();
    EXPECT_GT(lines.dropped, 0U);
    EXPECT_LT(lines.dropped, lines.logged);
  }
}

TEST(Log, PacedRecordsGoOutAtTheEndOfTheTurnAndWhenTheReaderComesBack) {
  const Pipe pipe;
  skein::Loop loop;
  log::StderrSink sink(pipe.writer(), log::StderrSink::Prefix::PRIORITY);
  const auto log_line = [&sink](const std::string& text) {
    sink.log({"pelorus", spdlog::level::info, text});
    sink.flush();
  };
  const log::Pacer pacer(&sink, loop);
  loop.call_in(1000, [] {});  // a loop that has nothing to wait for has no turns
  std::string first;
  while (log_line("a"), !(first = pipe.content()).empty()) EXPECT_EQ(first, "<6>a\n") << "at once";
  log_line("b");
  loop.turn();
  EXPECT_EQ(pipe.content(), "<6>a\n<6>b\n");
  const std::string text(3000, 'x');
  for (int line = 0; line < 100; ++line) log_line(text);
  std::string read;
  support::turn_until(loop,
                      [&] { return (read += pipe.content()).size() == 100 * (3 + 3000 + 1); });
}

TEST(Log, AbsurdlyLongLineSaysHowMuchIsLeftOut) {
  const Pipe pipe;
  fcntl(pipe.writer(), F_SETPIPE_SZ, 1 << 20);
  log::StderrSink sink(pipe.writer(), log::StderrSink::Prefix::PRIORITY);
  sink.log({"pelorus", spdlog::level::info, std::string(log::LINE_BYTES + 16, 'x')});
  sink.flush();
  std::string read;
  while (read.empty() || read.back() != '\n') read += pipe.content();
  EXPECT_EQ(read, "<6>" + std::string(log::LINE_BYTES, 'x') + " (16 bytes left out)\n");
}

TEST(Log, TraceOfAnUntracedFailureIsThePresentOne) {
  const auto lines = log::trace_lines(std::out_of_range("index"));
  EXPECT_EQ(lines[0], "std::out_of_range: index");
  EXPECT_GT(lines.size(), 1U);
}

}  // namespace
}  // namespace pelorus
