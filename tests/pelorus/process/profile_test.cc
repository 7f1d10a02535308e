#include "pelorus/pelorus/profile.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>

#include "skein/errors.h"
#include "support/folder.h"

namespace pelorus::profile {
namespace {

using testing::ElementsAre, testing::HasSubstr, testing::SizeIs;

std::int64_t now = 0;
std::int64_t clock() { return now; }

constinit Site root{"/a/main.cc", 1, "root"};
constinit Site outer{"/a/x.cc", 10, "outer"};
constinit Site inner{"/a/x.cc", 20, "inner"};

/// Spends `before` in `site`, does `calls`, and spends as long again.
void spend(
    Site& site, std::int64_t before, const std::function<void()>& calls = [] {}) {
  const Scope scope(site);
  now += before;
  calls();
  now += before;
}

/// root → outer → inner → outer → outer, and root → inner: mutual and direct recursion.
std::vector<Measurement> measured_recursion() {
  Profiler profiler(clock);
  spend(root, 1, [] {
    spend(outer, 10,
          [] { spend(inner, 100, [] { spend(outer, 1000, [] { spend(outer, 10000); }); }); });
    spend(inner, 100000);
  });
  return profiler.measurements();
}

TEST(Profile, RecursionCountsCumulativeTimeOnce) {
  const std::string data = to_callgrind(measured_recursion());
  EXPECT_THAT(data, HasSubstr("\ntotals: 222222\n"));
  const std::vector<Row> rows = from_callgrind(data);
  EXPECT_THAT(rows, ElementsAre(Row{{"/a/main.cc", 1, "root"}, 1, 2, 222222},
                                Row{{"/a/x.cc", 20, "inner"}, 2, 200200, 222200},
                                Row{{"/a/x.cc", 10, "outer"}, 3, 22020, 22220}));
}

TEST(Profile, FailureThatPassesThroughEndsItsCallsToo) {
  spend(inner, 5);  // before there is a profiler: not measured
  Profiler profiler(clock);
  const auto fail = [] { spend(inner, 5, [] { throw std::runtime_error("x"); }); };
  EXPECT_THROW(spend(outer, 1, fail), std::runtime_error);
  spend(outer, 1);
  const auto measurements = profiler.measurements();
  ASSERT_THAT(measurements, SizeIs(2));
  EXPECT_EQ(measurements[0].own, 1 + 2);
  EXPECT_EQ(measurements[1].own, 5);
}

TEST(Profile, TableShowsTheFirstFortyRows) {
  std::vector<Row> rows;
  for (unsigned i = 1; i <= 50; ++i)
    rows.push_back({{"/a/b/c.cc", i, "f"}, i, 1500000, 2000000000});
  const std::string text = table(rows);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 40);
  EXPECT_THAT(text, HasSubstr("           7       0.001500    2.0       2.000000  c.cc:7(f)\n"));
  EXPECT_THAT(table({{{"c.cc", 7, "operator()"}, 1, 0, 0}}), HasSubstr("  c.cc:7(operator())\n"));
}

TEST(Profile, FileNameHoldsTheMomentWithoutAnExponent) {
  EXPECT_EQ(file_name(1714571100.25), "pelorus.profile1714571100.25");
  EXPECT_EQ(file_name(1714571100.1234567), "pelorus.profile1714571100.1234567");
  EXPECT_EQ(file_name(1e22), "pelorus.profile10000000000000000000000");
}

TEST(Profile, InterruptLeavesTheFileInSilenceAndAFailureNone) {
  const support::Folder folder;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  testing::internal::CaptureStdout();
  EXPECT_THROW(run([] { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  EXPECT_THROW(run([] { throw skein::KeyboardInterrupt(); }), skein::KeyboardInterrupt);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Starting to profile!\nStarting to profile!\n");
  std::filesystem::current_path(before);
  EXPECT_FALSE(std::filesystem::is_empty(folder.path()));
  EXPECT_EQ(active, nullptr);
}

}  // namespace
}  // namespace pelorus::profile
