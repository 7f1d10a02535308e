#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace bench {

/// Graphite lines as bonding nodes and the management server send them. Read from the file that
/// PELORUS_CORPUS names, else made here: rounds of one interval in which every source flushes all
/// of its series, in the mix of kinds of a real network.
const std::string& corpus();

/// The corpus in blocks of `lines` lines, each ended by its last "\n".
std::vector<std::string_view> blocks_of(std::size_t lines);

/// Lines in `blocks`.
std::size_t line_count(const std::vector<std::string_view>& blocks);

}  // namespace bench
