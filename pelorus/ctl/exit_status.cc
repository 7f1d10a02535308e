#include "pelorus/ctl/exit_status.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace pelorus::ctl {
namespace {

using Kind = skein::ClientError::Kind;

struct Row {
  Kind kind;
  ExitStatus status;
  const char* meaning;
  const char* hint;  ///< behind the error's own text
};

constexpr std::array<Row, 7> ROWS{{
    {Kind::NO_SOCKET, ExitStatus::NO_SOCKET, "no socket at that path",
     "; pelorus does not run, or its socket lies elsewhere (--socket)"},
    {Kind::REFUSED, ExitStatus::REFUSED, "connection refused",
     "; nobody listens there, pelorus may have ended"},
    {Kind::NOT_PERMITTED, ExitStatus::NOT_PERMITTED, "no permission to use the socket",
     "; only the socket's owner and root may use it"},
    {Kind::TIMED_OUT, ExitStatus::TIMED_OUT, "time-out", " (--timeout)"},
    {Kind::SERVER, ExitStatus::SERVER_ERROR, "the server answered with an error", ""},
    {Kind::UNREACHABLE, ExitStatus::UNREACHABLE, "cannot connect for another reason", ""},
    {Kind::LOST, ExitStatus::LOST, "connection lost, or no skein server", ""},
}};

const Row* row_of(Kind kind) {
  const auto* row =
      std::find_if(ROWS.begin(), ROWS.end(), [&](const Row& known) { return known.kind == kind; });
  return row == ROWS.end() ? nullptr : row;
}

}  // namespace

ExitStatus exit_status_of(Kind kind) {
  const Row* row = row_of(kind);
  return row == nullptr ? ExitStatus::FAILURE : row->status;
}

std::string explain(const skein::ClientError& error) {
  const Row* row = row_of(error.kind());
  const char* lead = error.kind() == Kind::SERVER ? "the server answered: " : "";
  return fmt::format("{}{}{}", lead, error.what(), row == nullptr ? "" : row->hint);
}

std::string exit_status_help() {
  std::string help = "Exit status:\n  0  done\n  1  any other failure\n  2  wrong command line\n";
  for (const Row& row : ROWS) {
    fmt::format_to(std::back_inserter(help), "  {}  {}\n", static_cast<int>(row.status),
                   row.meaning);
  }
  return help;
}

}  // namespace pelorus::ctl
