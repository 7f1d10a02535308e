#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace support {

/// A new folder, which goes with all that is in it.
class Folder {
 public:
  Folder() {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no folder at " + path_);
  }
  Folder(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "pelorus-test-XXXXXX";
};

}  // namespace support
