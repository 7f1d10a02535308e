#include "pelorus/pelorus/settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <utility>

#include "pelorus/pelorus/errors.h"

// The parser's own messages quote what it read last, which may be a credential: none is passed on.
namespace pelorus {
namespace {

using nlohmann::json;

constexpr const char* DEFAULT_SOURCE = "/etc/pelorus/settings.json";

/// Whole content of a file. Throws SettingsError.
std::string content_of(const std::string& path) {
  const auto fail = [&path](int error) -> SettingsError {
    return SettingsError(fmt::format("Cannot read the settings in {}: {}", path,
                                     std::generic_category().message(error)));
  };
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"),
                                                             std::fclose);
  if (!file) throw fail(errno);
  std::string content;
  std::array<char, 4096> piece{};
  while (const auto count = std::fread(piece.data(), 1, piece.size(), file.get())) {
    content.append(piece.data(), count);
  }
  if (std::ferror(file.get()) != 0) throw fail(errno);
  return content;
}

/// "line 3, column 14 (byte 60)", all counted from 1; `byte` is the one where reading stopped.
std::string position(std::string_view text, std::size_t byte) {
  const std::string_view before = text.substr(0, byte == 0 ? 0 : byte - 1);
  const auto lines = std::count(before.begin(), before.end(), '\n');
  const auto line_start = before.rfind('\n') + 1;  // npos + 1 is 0: the first line
  return fmt::format("line {}, column {} (byte {})", lines + 1, before.size() - line_start + 1,
                     byte);
}

/// How one type of value is recognised, and what it is called in messages.
template <class T>
struct Kind;

template <>
struct Kind<std::int64_t> {
  static constexpr std::string_view NAME = "an integer";
  static std::optional<std::int64_t> read(const json& value) {
    constexpr auto MAXIMUM = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (!value.is_number_integer()) return std::nullopt;
    if (value.is_number_unsigned() && value.get<std::uint64_t>() > MAXIMUM) return std::nullopt;
    return value.get<std::int64_t>();
  }
};

template <>
struct Kind<double> {
  static constexpr std::string_view NAME = "a number";
  static std::optional<double> read(const json& value) {
    if (!value.is_number()) return std::nullopt;
    return value.get<double>();
  }
};

template <>
struct Kind<std::string> {
  static constexpr std::string_view NAME = "text";
  static std::optional<std::string> read(const json& value) {
    if (!value.is_string()) return std::nullopt;
    return value.get<std::string>();
  }
};

template <>
struct Kind<std::vector<DatabaseRecord>> {
  static constexpr std::string_view NAME = "a list of maps that have a text under \"name\"";
  static std::optional<std::vector<DatabaseRecord>> read(const json& value) {
    if (!value.is_array()) return std::nullopt;
    std::vector<DatabaseRecord> records;
    for (const json& entry : value) {
      if (!entry.is_object()) return std::nullopt;
      const auto name = entry.find("name");
      if (name == entry.end() || !name->is_string()) return std::nullopt;
      records.push_back({name->get<std::string>()});
    }
    return records;
  }
};

}  // namespace

struct Settings::Values {
  json object;
};

Settings::Settings(std::shared_ptr<const Values> values, std::string source)
    : values_(std::move(values)), source_(std::move(source)) {}

Settings Settings::load() {
  const char* path = std::getenv("PELORUS_SETTINGS");
  return from_file(path != nullptr && *path != '\0' ? path : DEFAULT_SOURCE);
}

Settings Settings::from_file(const std::string& path) { return from_text(content_of(path), path); }

Settings Settings::from_text(std::string_view json_text, std::string source) {
  auto values = std::make_shared<Values>();
  try {
    values->object = json::parse(json_text);
  } catch (const json::parse_error& failure) {
    throw SettingsError(fmt::format("The settings in {} are no valid JSON: {}", source,
                                    position(json_text, failure.byte)));
  } catch (const json::exception&) {
    throw SettingsError(fmt::format("The settings in {} hold a number out of range", source));
  }
  if (!values->object.is_object()) {
    throw SettingsError(fmt::format("The settings in {} are no JSON object", source));
  }
  return Settings(std::move(values), std::move(source));
}

template <class T>
T Settings::get(std::string_view key) const {
  const auto found = values_->object.find(key);
  if (found == values_->object.end()) {
    throw SettingsError(fmt::format("Setting {} is missing in {}", key, source_));
  }
  if (auto value = Kind<T>::read(*found)) return *std::move(value);
  throw SettingsError(fmt::format("Setting {} in {} must be {}", key, source_, Kind<T>::NAME));
}

template std::int64_t Settings::get(std::string_view) const;
template double Settings::get(std::string_view) const;
template std::string Settings::get(std::string_view) const;
template std::vector<DatabaseRecord> Settings::get(std::string_view) const;

}  // namespace pelorus
