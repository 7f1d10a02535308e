#include "pelorus/ctl/check.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "pelorus/ctl/exit_status.h"
#include "pelorus/ctl/settings_check.h"
#include "pelorus/ctl/terminal.h"
#include "pelorus/pelorus/errors.h"

namespace pelorus::ctl {
namespace {

struct CheckOptions {
  std::string file;
  double message_bytes = 16384;
};

/// The file holds credentials.
void check_mode(const std::string& file, Findings& findings) {
  struct stat status {};
  if (::stat(file.c_str(), &status) == 0 && (status.st_mode & 0007U) != 0) {
    findings.warnings.push_back(
        fmt::format("{} holds credentials and is open to every account (mode {:04o})", file,
                    status.st_mode & 07777U));
  }
}

Findings look_at(const CheckOptions& options) {
  Findings findings;
  try {
    const Settings settings =
        options.file.empty() ? Settings::load() : Settings::from_file(options.file);
    findings = check_settings(settings, options.message_bytes);
    check_mode(settings.source(), findings);
    if (findings.errors.empty()) fmt::print("{} can be used\n", settings.source());
  } catch (const SettingsError& failure) {
    findings.errors.emplace_back(failure.what());
  }
  return findings;
}

void run(const CheckOptions& options) {
  const Palette palette = Palette::of_stdout();
  const Findings findings = look_at(options);
  for (const std::string& text : findings.errors) {
    fmt::print("{} {}\n", palette.paint(Tone::BAD, "error:"), without_controls(text));
  }
  for (const std::string& text : findings.warnings) {
    fmt::print("{} {}\n", palette.paint(Tone::WARNING, "warning:"), without_controls(text));
  }
  if (!findings.errors.empty()) throw CLI::RuntimeError(static_cast<int>(ExitStatus::FAILURE));
}

}  // namespace

void add_check(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("check", "Look whether the daemon could work with its settings");
  const auto options = std::make_shared<CheckOptions>();  // shared with the callback
  command
      ->add_option("file", options->file,
                   "The settings; without it the file that PELORUS_SETTINGS names, else "
                   "/etc/pelorus/settings.json")
      ->type_name("FILE");
  command
      ->add_option("--message-bytes", options->message_bytes,
                   "Size of a usual message, to tell how large a write becomes; a block of "
                   "collectd's has up to 65536")
      ->type_name("BYTES")
      ->check(CLI::Range(1.0, 1e9).description(""))
      ->capture_default_str();
  command->footer(
      "Exit status:\n  0  they can be used, perhaps with warnings\n  1  they cannot\n"
      "  2  wrong command line\n");
  command->callback([options] { run(*options); });
}

}  // namespace pelorus::ctl
