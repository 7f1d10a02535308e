#include "pelorus/pelorus/process.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cwchar>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace pelorus {
namespace {

constexpr int MIB = 1 << 20;
/// Freed memory that the allocator keeps.
constexpr int KEPT_BYTES = 4 * MIB;
/// Larger blocks, such as the body after a long outage, are mapped separately and return to the
/// system as soon as they are freed.
constexpr int OWN_MAPPING_BYTES = 1 * MIB;

constexpr wchar_t UNDECODABLE = 0xDC00;  // added to the value of the byte
constexpr auto INVALID = static_cast<std::size_t>(-1);
constexpr auto INCOMPLETE = static_cast<std::size_t>(-2);

constexpr const char* VERSION = "pelorus " PELORUS_VERSION "\n";
constexpr const char* HELP =
    "pelorus, a metrics multiplexer between nodes, collectd and InfluxDB.\n"
    "\n"
    "Usage: pelorus [--profile]\n"
    "       pelorus --help | --version\n"
    "\n"
    "Runs in the foreground and logs to standard error until it is sent SIGTERM, or SIGINT by\n"
    "Ctrl-C. Other arguments are ignored.\n"
    "\n"
    "  --profile  measure where the time goes; at the end, print a table and leave the file\n"
    "             pelorus.profile<time> in the working directory\n"
    "  --help     print this; only as the only argument\n"
    "  --version  print the version; only as the only argument\n"
    "\n"
    "Environment:\n"
    "  PELORUS_SETTINGS   settings file, by default /etc/pelorus/settings.json\n"
    "  PELORUS_LOG_LEVEL  debug, info, warning or error; info by default\n"
    "\n"
    "pelorus(8) has the details, pelorus-settings(5) the settings; pelorusctl(1) asks a daemon "
    "that\n"
    "runs.\n";

/// Sets the environment's character encoding; its destructor restores the previous one.
class EnvironmentLocale {
 public:
  EnvironmentLocale() : before_(std::setlocale(LC_CTYPE, nullptr)) { std::setlocale(LC_CTYPE, ""); }
  EnvironmentLocale(const EnvironmentLocale&) = delete;
  EnvironmentLocale& operator=(const EnvironmentLocale&) = delete;
  ~EnvironmentLocale() { std::setlocale(LC_CTYPE, before_.c_str()); }

 private:
  std::string before_;
};

std::wstring decode(std::string_view bytes) {
  std::wstring text;
  std::mbstate_t state{};
  while (!bytes.empty()) {
    wchar_t character = 0;
    std::size_t used = std::mbrtowc(&character, bytes.data(), bytes.size(), &state);
    if (used == INCOMPLETE) throw std::runtime_error("unexpected mbrtowc result -2");
    if (used == INVALID) {
      character = UNDECODABLE + static_cast<unsigned char>(bytes[0]);
      used = 1;
      state = {};
    }
    text += character;
    bytes.remove_prefix(used);
  }
  return text;
}

}  // namespace

std::vector<std::wstring> decode_arguments(std::span<char* const> arguments) {
  const EnvironmentLocale locale;
  std::vector<std::wstring> texts;
  texts.reserve(arguments.size());
  for (const char* argument : arguments) texts.push_back(decode(argument));
  return texts;
}

bool wants_profile(const std::vector<std::wstring>& arguments) {
  return std::find(arguments.begin(), arguments.end(), L"--profile") != arguments.end();
}

const char* information(const std::vector<std::wstring>& arguments) {
  if (arguments.size() != 2) return nullptr;
  if (arguments[1] == L"--help") return HELP;
  return arguments[1] == L"--version" ? VERSION : nullptr;
}

void open_standard_descriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) < 0) ::open("/dev/null", O_RDWR);  // takes the lowest number
  }
}

void keep_memory_private() { ::prctl(PR_SET_DUMPABLE, 0); }

void ignore_signals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGHUP, SIG_IGN);
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

void keep_freed_memory() {
  // Both: setting one of them ends the allocator's own adjustment of the other.
  ::mallopt(M_TRIM_THRESHOLD, KEPT_BYTES);
  ::mallopt(M_MMAP_THRESHOLD, OWN_MAPPING_BYTES);
}

std::size_t usable_memory() {
  const auto pages = static_cast<std::size_t>(::sysconf(_SC_PHYS_PAGES));
  std::size_t most = pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  std::string group;
  std::ifstream groups("/proc/self/cgroup");  // "0::/system.slice/pelorus.service"
  while (std::getline(groups, group) && !group.starts_with("0::/")) {
  }
  if (!group.starts_with("0::/")) return most;
  for (group.erase(0, 3); !group.empty(); group.erase(group.rfind('/'))) {
    std::size_t limit = 0;  // stays 0 if the file says "max" or is missing
    std::ifstream file("/sys/fs/cgroup" + group + "/memory.max");
    if (file >> limit && limit != 0) most = std::min(most, limit);
  }
  return most;
}

}  // namespace pelorus
