#include "pelorus/pelorus/profile.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>

#include "skein/errors.h"
#include "support/folder.h"

namespace pelorus::profile {
namespace {

using testing::AllOf, testing::HasSubstr;

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

TEST(Profile, RecursionCountsCumulativeTimeOnce) {
  Profiler profiler(clock);
  // root → outer → inner → outer → outer, and root → inner: mutual and direct recursion
  spend(root, 1'000'000, [] {
    spend(outer, 10'000'000, [] {
      spend(inner, 100'000'000,
            [] { spend(outer, 1'000'000'000, [] { spend(outer, 10'000'000'000); }); });
    });
    spend(inner, 100'000'000'000);
  });
  EXPECT_THAT(profiler.to_callgrind(),
              AllOf(HasSubstr("\nfl=/a/x.cc\nfn=outer:10\n10 22020000000\n"
                              "cfi=/a/x.cc\ncfn=inner:20\ncalls=1 20\n10 22200000000\n"
                              "cfi=/a/x.cc\ncfn=outer:10\ncalls=1 10\n10 0\n"),
                    HasSubstr("\ntotals: 222222000000\n")));
  EXPECT_EQ(profiler.table(),
            "       calls          own s  own %   cumulative s  function\n"
            "           1       0.002000    0.0     222.222000  main.cc:1(root)\n"
            "           2     200.200000   90.1     222.200000  x.cc:20(inner)\n"
            "           3      22.020000    9.9      22.220000  x.cc:10(outer)\n");
}

TEST(Profile, FailureThatPassesThroughEndsItsCallsToo) {
  spend(inner, 5);  // before there is a profiler: not measured
  Profiler profiler(clock);
  const auto fail = [] { spend(inner, 5, [] { throw std::runtime_error("x"); }); };
  EXPECT_THROW(spend(outer, 1, fail), std::runtime_error);
  spend(outer, 1);
  EXPECT_THAT(profiler.to_callgrind(), HasSubstr("\nfn=outer:10\n10 3\n"));
  EXPECT_THAT(profiler.to_callgrind(), HasSubstr("\nfn=inner:20\n20 5\n"));
}

TEST(Profile, TableShowsTheFirstFortyRows) {
  std::vector<Site> sites(50, Site{"a/b/c.cc", 7, "operator()"});
  Profiler profiler(clock);
  for (Site& site : sites) spend(site, 1);
  const std::string text = profiler.table();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 40);
  EXPECT_THAT(text, HasSubstr("    2.0       0.000000  c.cc:7(operator())\n"));
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
