#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// Takes the first complete frame off the front of `bytes` and returns its payload, a view into
/// `bytes` without the length prefix. None if the frame is not complete yet; `bytes` then stays.
/// Throws ProtocolError for a length of 0 or above MAX_FRAME_BYTES, as soon as the prefix is
/// complete.
std::optional<std::string_view> take_frame(std::string_view& bytes);

/// Bytes that the first frame of `bytes` still lacks; those of its prefix as long as that is not
/// complete. 0 if the frame is complete. Throws ProtocolError like take_frame.
std::size_t missing_to_frame(std::string_view bytes);

/// Appends `message` to `out` as a frame: its length prefix and one Snappy block.
void append_frame(std::string_view message, std::string& out);

}  // namespace skein
