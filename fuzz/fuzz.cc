#include "fuzz/fuzz.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "pelorus/pelorus/log.h"

namespace fuzz {

void require(bool holds, std::string_view wanted) {
  if (holds) return;
  fmt::print(stderr, "FINDING: {}\n", wanted);
  std::abort();
}

std::uint8_t take_byte(std::string_view& input) {
  if (input.empty()) return 0;
  const auto byte = static_cast<std::uint8_t>(input.front());
  input.remove_prefix(1);
  return byte;
}

std::vector<std::string_view> pieces(std::string_view text, std::uint8_t seed) {
  constexpr std::size_t MOST = 64;
  std::minstd_rand random(seed + 1U);
  // Few large ones, or many small ones: a seed keeps to its kind.
  const std::size_t longest = std::size_t{1} << (seed % 8U);
  std::vector<std::string_view> cut;
  while (!text.empty() && cut.size() + 1 < MOST) {
    const std::size_t size = std::min<std::size_t>(random() % (longest + 1), text.size());
    cut.push_back(text.substr(0, size));
    text.remove_prefix(size);
  }
  cut.push_back(text);
  return cut;
}

}  // namespace fuzz

/// Short stacks of allocations and a small quarantine: twice the speed.
extern "C" const char* __asan_default_options() {
  return "malloc_context_size=3:quarantine_size_mb=16";
}

// Called by libFuzzer: once, and for each input.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  pelorus::log::set_capture([](auto, auto) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::run({reinterpret_cast<const char*>(data), size});
  return 0;
}
