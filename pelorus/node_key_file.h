#pragma once

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string>

#include "skein/errors.h"

// The node key as an operator gives it, to pelorusctl and to collectd's plugin.
namespace pelorus {

/// Whether `text` can be a node key: not empty, no blanks, no control bytes.
inline bool is_node_key(const std::string& text) {
  return !text.empty() && std::ranges::all_of(text, [](char byte) {
    return static_cast<unsigned char>(byte) > 0x20 && byte != 0x7F;
  });
}

/// The node key in the file at `path`: its first line without the blanks around it. Throws
/// skein::Failure if the file cannot be read or its first line cannot be a key; the text names the
/// file and never shows what is in it.
inline std::string read_node_key_file(const std::string& path) {
  constexpr const char* BLANKS = " \t\r";
  std::ifstream file(path);
  if (!file) throw skein::SystemFailure("cannot read the key file '" + path + "'", errno);
  std::string line;
  std::getline(file, line);
  line.erase(0, std::min(line.find_first_not_of(BLANKS), line.size()));
  line.erase(line.find_last_not_of(BLANKS) + 1);
  if (!is_node_key(line)) throw skein::Failure("the first line of '" + path + "' is no node key");
  return line;
}

}  // namespace pelorus
