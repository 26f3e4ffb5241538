#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Frames on a stream socket: a 4-byte big-endian length followed by that many bytes.
namespace twine {

/// Largest payload of a frame. A larger length is refused before anything is allocated.
inline constexpr std::uint32_t MAX_FRAME = 8U * 1024 * 1024;

using Clock = std::chrono::steady_clock;

/// Reads one frame from a socket (blocking or not) until the deadline.
/// @return false when the peer closed the connection before the first byte
/// @throws FrameError, CallError
bool readFrame(int socket, std::string& payload, Clock::time_point deadline);

/// Writes one frame; never raises SIGPIPE.
/// @throws FrameError when the payload is larger than MAX_FRAME, CallError
void writeFrame(int socket, std::string_view payload, Clock::time_point deadline);

} // namespace twine
