// The web server's answer to a node key: a body whose JSON repeats the key confirms it, no other
// does, and neither key nor token is logged.
#include "pelorus/pelorus/listen/key_answer.h"

#include <nlohmann/json.hpp>

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/log.h"
#include "skein/errors.h"

namespace fuzz {
namespace {

constexpr const char* KEY = "0a1b2c3d4e5f";
constexpr const char* TOKEN = "t0ken-of-the-web-server";

bool repeats_key(std::string_view body) {
  const auto answer = nlohmann::json::parse(body, nullptr, false);
  return answer.is_object() && answer.contains("key") && answer["key"] == KEY;
}

bool confirms(const std::string& body) {
  static const auto settings =
      pelorus::Settings::from_text(std::string(R"({"LOCAL_WWW_KEY": ")") + TOKEN + "\"}", "fuzz");
  try {
    return pelorus::is_confirmed(KEY, pelorus::KeyResponse{200, body}, settings);
  } catch (const skein::Failure&) {
    return false;
  }
}

}  // namespace

void run(std::string_view input) {
  std::string log;
  pelorus::log::set_capture([&log](auto, std::string_view line) { log += line; });
  require(confirms(std::string(input)) == repeats_key(input),
          "a key is confirmed when, and only when, the answer repeats it");
  require(log.find(KEY) == log.npos && log.find(TOKEN) == log.npos, "no secret is logged");
  pelorus::log::set_capture([](auto, auto) {});
}

}  // namespace fuzz
