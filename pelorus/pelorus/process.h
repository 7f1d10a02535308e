#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

// The process and the operating system: its command line, and what is set up before the settings
// are loaded.
namespace pelorus {

/// The command line, decoded from the multibyte encoding of the environment's locale, which is set
/// for as long as this takes. A byte that does not decode becomes 0xDC00 + byte, so that every
/// argument survives. Throws std::runtime_error if an argument ends within a character.
std::vector<std::wstring> decode_arguments(std::span<char* const> arguments);

/// Whether "--profile" is one of them, at any position, that of the program name included.
bool wants_profile(const std::vector<std::wstring>& arguments);

/// What "--help" or "--version" prints, if one of them is the only argument; else null.
const char* information(const std::vector<std::wstring>& arguments);

/// Opens standard input, output and error on the null device where they are closed. Otherwise a
/// file or socket that the process opens could become its standard error, and be logged to.
void open_standard_descriptors();

/// Disables core files, and lets only root read the memory, which holds secrets.
void keep_memory_private();

/// Ignores SIGPIPE, since a write to a disconnected peer reports it anyway, and SIGHUP, since the
/// daemon outlives its terminal.
void ignore_signals();

/// Raises the soft limit of descriptors to the hard one: each node takes a descriptor. The usual
/// soft limit of 1,024 serves programs that use select().
void raise_descriptor_limit();

/// Makes the allocator keep a few MiB of freed memory. Messages and request bodies are allocated
/// and freed with each batch; without this their memory returns to the system each time, and the
/// page faults of the next batch cost more than translating its lines.
void keep_freed_memory();

/// Bytes of memory that the process may use: the minimum of the machine's memory and the limits of
/// its control group and the groups above it.
std::size_t usable_memory();

}  // namespace pelorus
