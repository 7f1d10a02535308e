#include "pelorus/pelorus/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <random>
#include <stdexcept>

#include "pelorus/pelorus/log_writer.h"
#include "support/loop_test.h"
#include "surroundings.h"

namespace pelorus {
namespace {

using log::Level, log::LogWriter;
using Prefix = LogWriter::Prefix;

void write(LogWriter& writer, std::string_view text, std::span<const std::string> others = {}) {
  writer.write(Level::INFO, std::chrono::system_clock::now(), text, others);
}

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
  const auto moment =
      std::chrono::system_clock::from_time_t(1714571100) + std::chrono::milliseconds(7);
  const Pipe pipe;
  LogWriter priorities(pipe.writer(), Prefix::PRIORITY);
  LogWriter times(pipe.writer(), Prefix::TIME);
  struct Row {
    Level level;
    std::string journal, plain;
  };
  for (const auto& [level, journal, plain] : std::vector<Row>{{Level::DEBUG, "<7>", "debug "},
                                                              {Level::INFO, "<6>", "info "},
                                                              {Level::WARNING, "<4>", "warning "},
                                                              {Level::ERROR, "<3>", "error "}}) {
    priorities.write(level, moment, "two\nlines");
    times.write(level, moment, "two\nlines");
    EXPECT_EQ(pipe.content(),
              journal + "two\\nlines\n2024-05-01 13:45:00.007 " + plain + "two\\nlines\n");
  }
}

/// Numbered lines through a writer into a small pipe, and what came out of it.
class NumberedLines {
 public:
  explicit NumberedLines(const Pipe& pipe) : pipe_(pipe), writer_(pipe.writer(), Prefix::PRIORITY) {
    fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
  }

  void log_record(std::size_t count, std::size_t bytes) {
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < count; ++i) {
      lines.push_back(fmt::format("{} {} {:x>{}}", logged++, count - i, "", bytes));
    }
    write(writer_, lines.front(), std::span(lines).subspan(1));
  }
  void drop(std::size_t lines) {
    writer_.drop(lines);
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
      writer_.flush();
      read();
    }
    EXPECT_EQ(writer_.dropped_lines(), dropped);
  }

  std::size_t logged = 0, dropped = 0;

 private:
  const Pipe& pipe_;
  LogWriter writer_;
  std::string text_;                    ///< the start of a line
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

TEST(Log, RecordsGoOutAtTheEndOfTheTurnAndWhenTheReaderComesBack) {
  const Pipe pipe;
  skein::Loop loop;
  LogWriter writer(pipe.writer(), Prefix::PRIORITY);
  writer.attach(loop);
  loop.call_in(1000, [] {});  // a loop that has nothing to wait for has no iterations
  std::string first;
  while (write(writer, "a"), !(first = pipe.content()).empty()) {
    EXPECT_EQ(first, "<6>a\n") << "at once";
  }
  write(writer, "b");
  loop.run_once();
  EXPECT_EQ(pipe.content(), "<6>a\n<6>b\n");
  for (int line = 0; line < 100; ++line) write(writer, std::string(3000, 'x'));
  std::string read;
  support::run_until(loop, [&] { return (read += pipe.content()).size() == 100 * (3 + 3000 + 1); });
}

TEST(Log, HeldRecordsAreWrittenTogether) {
  const Pipe pipe;
  LogWriter writer(pipe.writer(), Prefix::PRIORITY);
  writer.hold(true);
  write(writer, "a");
  write(writer, "b");
  EXPECT_EQ(pipe.content(), "");
  writer.hold(false);
  EXPECT_EQ(pipe.content(), "<6>a\n<6>b\n");
}

TEST(Log, AbsurdlyLongLineSaysHowMuchIsLeftOut) {
  const Pipe pipe;
  fcntl(pipe.writer(), F_SETPIPE_SZ, 1 << 20);
  LogWriter writer(pipe.writer(), Prefix::PRIORITY);
  write(writer, std::string(log::LINE_BYTES + 16, 'x'));
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
