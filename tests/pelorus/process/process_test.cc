#include "pelorus/pelorus/process.h"

#include <gtest/gtest.h>

#include <clocale>

#include "pelorus/pelorus/errors.h"
#include "surroundings.h"

namespace pelorus {
namespace {

std::wstring decoded(std::string argument) {
  char* const arguments[] = {argument.data()};
  return decode_arguments(arguments).at(0);
}

TEST(Arguments, UndecodableBytesBecomeCodePointsOfTheirOwn) {
  const support::Variable locale("LC_ALL", "C.UTF-8");
  struct Row {
    std::string bytes;
    std::wstring text;
  };
  for (const auto& [bytes, text] :
       std::vector<Row>{{"", L""},
                        {"--profile", L"--profile"},
                        {"caf\xc3\xa9 \xf0\x9f\x98\x80", L"caf\u00e9 \U0001F600"},
                        {"a\xff\xfe z", L"a\xdcff\xdcfe z"},
                        {"\xc3(\xc3\xa9", L"\xdcc3(\u00e9"}}) {
    EXPECT_EQ(decoded(bytes), text) << bytes;
  }
}

TEST(Arguments, CharacterCutOffByTheEndIsAFailure) {
  std::setlocale(LC_CTYPE, "C");
  const support::Variable locale("LC_ALL", "C.UTF-8");
  for (const std::string bytes : {"\xc3", "caf\xf0\x9f\x98"}) {
    try {
      decoded(bytes);
      ADD_FAILURE() << "decoded";
    } catch (const std::runtime_error& failure) {
      EXPECT_STREQ(failure.what(), "unexpected mbrtowc result -2");
    }
  }
  EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C") << "another one while decoding only";
}

TEST(Arguments, ProfileIsWantedFromAnyPosition) {
  EXPECT_TRUE(wants_profile({L"--profile"}));
  EXPECT_TRUE(wants_profile({L"pelorus", L"x", L"--profile", L"--profile"}));
  EXPECT_FALSE(wants_profile({L"pelorus", L"--profiles", L"-profile"}));
  EXPECT_FALSE(wants_profile({}));
}

}  // namespace
}  // namespace pelorus
