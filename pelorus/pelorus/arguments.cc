#include "pelorus/pelorus/arguments.h"

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <string_view>

#include "pelorus/pelorus/errors.h"

namespace pelorus {
namespace {

constexpr wchar_t UNDECODABLE = 0xDC00;  // added to the value of the byte
constexpr auto INVALID = static_cast<std::size_t>(-1);
constexpr auto INCOMPLETE = static_cast<std::size_t>(-2);

/// The environment's character encoding for as long as it lives, then the one before it.
class EnvironmentLocale {
 public:
  EnvironmentLocale() : before_(std::setlocale(LC_CTYPE, nullptr)) { std::setlocale(LC_CTYPE, ""); }
  EnvironmentLocale(const EnvironmentLocale&) = delete;
  EnvironmentLocale& operator=(const EnvironmentLocale&) = delete;
  ~EnvironmentLocale() { std::setlocale(LC_CTYPE, before_.c_str()); }

 private:
  std::string before_;
};

std::wstring decode(std::string_view bytes) {
  std::wstring text;
  std::mbstate_t state{};
  while (!bytes.empty()) {
    wchar_t character = 0;
    std::size_t used = std::mbrtowc(&character, bytes.data(), bytes.size(), &state);
    if (used == INCOMPLETE) throw ArgumentDecodingError("unexpected mbrtowc result -2");
    if (used == INVALID) {
      character = UNDECODABLE + static_cast<unsigned char>(bytes[0]);
      used = 1;
      state = {};
    }
    text += character;
    bytes.remove_prefix(used);
  }
  return text;
}

}  // namespace

std::vector<std::wstring> decode_arguments(std::span<char* const> arguments) {
  const EnvironmentLocale locale;
  std::vector<std::wstring> texts;
  texts.reserve(arguments.size());
  for (const char* argument : arguments) texts.push_back(decode(argument));
  return texts;
}

bool wants_profile(const std::vector<std::wstring>& arguments) {
  return std::find(arguments.begin(), arguments.end(), L"--profile") != arguments.end();
}

}  // namespace pelorus
