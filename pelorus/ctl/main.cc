// pelorusctl, the operator's tool. Each subcommand has a file of its own and adds itself to the
// command line. Failures are exceptions, which main() iterations into an exit status.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelorus/ctl/command.h"
#include "skein/text.h"

namespace {

namespace ctl = pelorus::ctl;
using ctl::ExitStatus;

ExitStatus fail(std::string_view text, ExitStatus status) {
  // fmt::print would throw if nobody reads, and there is nowhere left to say so.
  std::fputs(fmt::format("pelorusctl: {}\n", text).c_str(), stderr);
  return status;
}

void add_version(CLI::App& app) {
  app.set_version_flag("--version", "pelorusctl " PELORUS_VERSION, "Print the version and exit");
}

/// Whether a monitoring system reads the exit status. For it, 2 means CRITICAL, not a wrong
/// command.
bool monitoring(int argc, char** argv) {
  return std::any_of(argv, argv + argc, [](std::string_view argument) {
    return argument.starts_with("--warn") || argument.starts_with("--crit");
  });
}

/// How many bytes must be added, removed or replaced to make `a` into `b` (Levenshtein distance).
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({row[j] + 1, row[j + 1] + 1, replaced});
    }
  }
  return row.back();
}

/// "no subcommand 'stat': stats, status, … (did you mean stats?)"
std::string unknown_subcommand(const CLI::App& app, const std::string& word) {
  constexpr std::size_t SIMILAR = 3;
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) names.push_back(command->get_name());
  const auto nearest = std::ranges::min_element(
      names, {}, [&](const std::string& name) { return distance(word, name); });
  const std::string hint = distance(word, *nearest) < std::min(SIMILAR + 1, nearest->size())
                               ? fmt::format("; did you mean {}?", *nearest)
                               : "";
  return fmt::format("no subcommand '{}', there are {}{}", skein::without_controls(word),
                     fmt::join(names, ", "), hint);
}

/// Names a word that is no subcommand, instead of saying that there is no subcommand.
void parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::RequiredError&) {
    if (!app.get_subcommands().empty() || app.remaining_size() == 0) throw;
    throw ctl::UsageError(unknown_subcommand(app, app.remaining().front()));
  }
}

/// "help [SUBCOMMAND]": what --help prints.
void add_help(CLI::App& app) {
  CLI::App* command = app.add_subcommand("help", "Print the help of a subcommand, or this one");
  const auto name = std::make_shared<std::string>();  // shared with the callback
  command->add_option("subcommand", *name)->type_name("");
  command->callback([&app, name] {
    const auto commands = app.get_subcommands({});
    const auto named = std::ranges::find(commands, *name, &CLI::App::get_name);
    if (!name->empty() && named == commands.end()) {
      throw ctl::UsageError(unknown_subcommand(app, *name));
    }
    const CLI::App* about = name->empty() ? &app : *named;
    // Not about->help(): that is the help of the subcommand that was named, which is this one.
    const std::string title = about == &app ? "pelorusctl" : "pelorusctl " + *name;
    const auto text = about->get_formatter()->make_help(about, title, CLI::AppFormatMode::Normal);
    std::fputs(text.c_str(), stdout);
  });
}

ExitStatus run(int argc, char** argv) {
  CLI::App app("Queries and feeds a running pelorus, and checks lines and settings without one.",
               "pelorusctl");
  ctl::ServerOptions server;
  app.require_subcommand(1);
  app.footer(ctl::exit_status_help());
  server.add_local(app);
  ctl::add_stats(app, server);
  ctl::add_status(app, server);
  ctl::add_translate(app);
  ctl::add_check(app);
  ctl::add_send(app, server);
  add_help(app);
  add_version(app);
  for (CLI::App* command : app.get_subcommands({})) add_version(*command);
  try {
    parse(app, argc, argv);
  } catch (const CLI::RuntimeError& ended) {
    return static_cast<ExitStatus>(ended.get_exit_code());
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) == 0) return ExitStatus::SUCCESS;
    return monitoring(argc, argv) ? ctl::MONITORING_UNKNOWN : ExitStatus::USAGE;
  }
  return ExitStatus::SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  ExitStatus status = ExitStatus::SUCCESS;
  try {
    status = run(argc, argv);
  } catch (const skein::ClientError& error) {
    status = fail(ctl::explain(error), ctl::exit_status_of(error.kind()));
  } catch (const ctl::UsageError& error) {
    status = fail(error.what(), ExitStatus::USAGE);
  } catch (const std::exception& error) {
    status = fail(error.what(), ExitStatus::FAILURE);
  }
  if (std::fflush(stdout) != 0 && status == ExitStatus::SUCCESS) {
    status = fail("cannot write to standard output", ExitStatus::FAILURE);
  }
  return static_cast<int>(status);
}
