#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

namespace support {

/// One environment variable with another value, or none, for as long as it lives.
class Variable {
 public:
  Variable(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
    if (const char* before = std::getenv(name_.c_str())) before_ = before;
    set(value);
  }
  ~Variable() { set(before_); }

 private:
  void set(const std::optional<std::string>& value) {
    value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
  }

  std::string name_;
  std::optional<std::string> before_;
};

/// A new folder that is the current one for as long as it lives.
class WorkingFolder {
 public:
  WorkingFolder() : before_(std::filesystem::current_path()) {
    std::string path = std::filesystem::temp_directory_path() / "pelorus-test-XXXXXX";
    std::filesystem::current_path(mkdtemp(path.data()));
    path_ = path;
  }
  ~WorkingFolder() {
    std::filesystem::current_path(before_);
    std::filesystem::remove_all(path_);
  }

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path before_;
  std::filesystem::path path_;
};

}  // namespace support
