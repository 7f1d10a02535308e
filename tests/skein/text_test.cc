#include "skein/text.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::string_view_literals;

TEST(Text, BytesAreQuotedAndEscapedForMessages) {
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

TEST(Text, ControlBytesAndBrokenTextAreEscapedForTheLog) {
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
    std::string out;
    append_escaped(out, text);
    EXPECT_EQ(out, escaped);
  }
}

TEST(Text, NothingOfAPeerMovesTheCursorOfATerminal) {
  EXPECT_EQ(without_controls("a\x1b[2J\n\x7f caf\u00e9 \xc2\x9b"
                             "1A\x80"),
            "a?[2J?? caf\u00e9 ??1A?");
}

}  // namespace
}  // namespace skein
