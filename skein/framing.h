#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// Takes the first complete frame off the front of `bytes` and returns its payload (a view into
/// `bytes`, without the length prefix); none when the frame is not complete yet, `bytes` then
/// stays. Throws ProtocolError for a length of 0 or beyond MAX_FRAME_BYTES, as soon as the prefix
/// is there.
std::optional<std::string_view> take_frame(std::string_view& bytes);

/// Bytes that are still missing to the first frame of `bytes`; at least those of its prefix while
/// that is not complete. 0 when the frame is complete. Throws ProtocolError like take_frame.
std::size_t missing_to_frame(std::string_view bytes);

/// Sets aside room for the length prefix at the end of `out` and returns where the frame begins.
std::size_t begin_frame(std::string& out);
/// Fills in the prefix of the frame that begins at `begin` and reaches to the end of `out`.
void end_frame(std::string& out, std::size_t begin);

}  // namespace skein
