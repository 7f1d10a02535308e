#pragma once

#include <cstdlib>
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

}  // namespace support
