#pragma once

#include <chrono>
#include <cstddef>

namespace nis {

/// Largest RPC message over UDP, in both directions, in bytes.
inline constexpr std::size_t DATAGRAM_MAX = 8800;
/// Largest call over TCP, all its fragments together, in bytes. Calls of this protocol are far
/// smaller; the rest is room for credentials and for clients of later versions.
inline constexpr std::size_t CALL_RECORD_MAX = 65536;
/// Bytes of a reply that are collected before a fragment is sent over TCP.
inline constexpr std::size_t REPLY_FRAGMENT = 65536;

/// How much the transports put up with. The defaults are the daemon's; tests shorten them.
struct TransportLimits {
    std::chrono::milliseconds halfRecord{30'000}; ///< from the first byte of a call to its last
    std::chrono::milliseconds idle{300'000};      ///< of a connection without a complete call
    std::chrono::milliseconds stall{60'000};      ///< of a reply that the client does not read
    std::chrono::milliseconds acceptRetry{1'000}; ///< after descriptors or memory ran out
    std::size_t connections = connectionLimit();  ///< at most; then the longest idle one goes
    std::size_t spares = 256;                     ///< threads that stand in for stalled ones

    /// Connections that fit beside the descriptors that the daemon's own files need.
    static std::size_t connectionLimit();
};

/// Raises the process's descriptor limit as far as the system lets it.
void raiseDescriptorLimit();

} // namespace nis
