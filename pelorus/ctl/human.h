#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Numbers as people read them.
namespace pelorus::ctl {

/// "12,345"
std::string human_count(double number);
/// "1 line", "20000 lines"
std::string human_number_of(std::string_view thing, std::size_t number);
/// "512 B", "1.5 MiB"
std::string human_bytes(double bytes);
/// "0.3 s", "42 s", "3 m 5 s", "2 h 10 m", "3 d 4 h"
std::string human_duration(double seconds);
/// "2023-11-14 22:13:20" in local time; "?" for what is no moment of this age.
std::string human_moment(double seconds_since_epoch);

}  // namespace pelorus::ctl
