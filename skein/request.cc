#include "skein/request.h"

#include <fmt/format.h>

#include "skein/errors.h"
#include "skein/text.h"

namespace skein {

Value Request::get(std::string_view argument) const {
  const auto found = args.find(argument);
  if (!found) {
    throw RequestError(fmt::format("request '{}' lacks the argument '{}'", name, argument));
  }
  return *found;
}

std::string_view Request::text(std::string_view argument) const {
  const auto found = get(argument).text();
  if (!found) {
    throw RequestError(fmt::format("argument '{}' of request '{}' is no text", argument, name));
  }
  return *found;
}

}  // namespace skein
