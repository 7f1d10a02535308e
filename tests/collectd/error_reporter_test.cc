#include "collectd/error_reporter.h"

#include <gmock/gmock.h>

#include <vector>

namespace write_skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

const ErrorReporter::Clock::time_point START{1h};

class Reporter : public testing::Test {
 protected:
  std::vector<std::string> lines;
  ErrorReporter errors{"a", [this](int, const std::string& line) { lines.push_back(line); }};
};

TEST_F(Reporter, OneLinePerOutageAndOneWhenItIsOver) {
  errors.answered({}, START);
  errors.failed("refused", START);
  errors.failed("timed out", START + 30s);
  errors.answered({.bytes = 640, .values = 7}, START + 90s);
  errors.answered({}, START + 100s);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("node \"a\": refused; values are queued"),
                                 HasSubstr("back after 90 s; 7 values (640 bytes) were dropped")));
}

TEST_F(Reporter, RefusedAndDroppedValuesAreSummedUpBetweenRareLines) {
  for (int i = 0; i < 3; ++i) {
    errors.refused("bad key", 10, START + i * 1s);
    errors.answered({.bytes = 1, .values = 2}, START + i * 1s);
  }
  EXPECT_THAT(lines, ElementsAre(HasSubstr("refused 10 values, they are lost: bad key"),
                                 HasSubstr("too slow: 2 values")));
  lines.clear();
  errors.refused("bad key", 10, START + ErrorReporter::REPEAT);
  errors.answered({}, START + ErrorReporter::REPEAT);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("refused 30 values"), HasSubstr("4 values")));
}

TEST_F(Reporter, NoLostValueStaysUnreported) {
  for (const int values : {10, 20}) errors.refused("bad key", values, START);
  EXPECT_EQ(errors.due(), START + ErrorReporter::REPEAT);
  errors.report(START + ErrorReporter::REPEAT - 1s);
  EXPECT_EQ(lines.size(), 1U);
  errors.report(START + ErrorReporter::REPEAT);
  EXPECT_THAT(lines.back(), HasSubstr("refused 20 values, they are lost: bad key"));
  EXPECT_EQ(errors.due(), ErrorReporter::Clock::time_point::max());
  errors.refused("bad key", 30, START + ErrorReporter::REPEAT);
  lines.clear();
  errors.stopped({.bytes = 8, .values = 4}, {.bytes = 10, .values = 5}, "cancelled");
  EXPECT_THAT(lines, ElementsAre(HasSubstr("refused 30 values"), HasSubstr("5 values were dropped"),
                                 HasSubstr("4 values (8 bytes) could not be sent before the end")));
}

}  // namespace
}  // namespace write_skein
