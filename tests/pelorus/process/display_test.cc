#include "pelorus/translate/display.h"

#include <gtest/gtest.h>

namespace translate {
namespace {

using namespace std::string_view_literals;

TEST(Display, BytesAreQuotedAndEscaped) {
  struct Row {
    std::string_view bytes, shown;
  };
  for (const auto& [bytes, shown] : {Row{"", "b''"},
                                     {"m1.cpu-0 ~", "b'm1.cpu-0 ~'"},
                                     {"a\tb\nc\rd\\e", R"(b'a\tb\nc\rd\\e')"},
                                     {"\0\x1f\x7f\x80\xff"sv, R"(b'\x00\x1f\x7f\x80\xff')"},
                                     {"\xc3\xa9", R"(b'\xc3\xa9')"},
                                     {"it's", R"(b"it's")"},
                                     {R"(say "x")", R"(b'say "x"')"},
                                     {R"(it's "x")", R"(b'it\'s "x"')"}}) {
    EXPECT_EQ(display(bytes), shown);
  }
}

}  // namespace
}  // namespace translate
