#include "skein/dispatcher.h"

#include <fmt/format.h>

namespace skein {

const Dispatcher::Operation* Dispatcher::find(std::string_view name) const {
  for (const auto& [known, operation] : operations_) {
    if (known == name) return &operation;
  }
  return nullptr;
}

std::string Dispatcher::unknown_request(std::string_view name) {
  constexpr std::size_t SHOWN_BYTES = 64;
  return fmt::format("unknown request '{}'", name.substr(0, SHOWN_BYTES));
}

}  // namespace skein
