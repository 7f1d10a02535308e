#pragma once

#include <string>

namespace skein {

/// The node key in the file at `path`: its first line without the blanks around it.
/// Throws Failure, whose text names the file and never what stands in it: not readable, no key, or
/// a key with blanks or control bytes inside.
std::string read_key_file(const std::string& path);

/// Whether `text` can be a node key: not empty, no blanks, no control bytes.
bool is_node_key(const std::string& text);

}  // namespace skein
