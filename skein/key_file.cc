#include "skein/key_file.h"

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "skein/errors.h"

namespace skein {
namespace {

constexpr const char* BLANKS = " \t\r";

}  // namespace

bool is_node_key(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char byte) {
    return static_cast<unsigned char>(byte) > 0x20 && byte != 0x7F;
  });
}

std::string read_key_file(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw SystemFailure("cannot read the key file '" + path + "'", errno);
  std::string line;
  std::getline(file, line);
  line.erase(0, std::min(line.find_first_not_of(BLANKS), line.size()));
  line.erase(line.find_last_not_of(BLANKS) + 1);
  if (!is_node_key(line)) throw Failure("the first line of '" + path + "' is no node key");
  return line;
}

}  // namespace skein
