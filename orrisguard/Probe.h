#pragma once

#include "Watch.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace orrisguard {

/// Asks a NIS server over UDP whether it answers: the null procedure of YPPROG version 2 at the
/// port that the portmapper names. One thread at a time.
class Probe {
public:
    static constexpr std::uint16_t PORTMAPPER_PORT = 111;

    /// @param address IPv4 address that the server is bound to, in network byte order
    explicit Probe(std::uint32_t address, std::uint16_t portmapperPort = PORTMAPPER_PORT);

    /// @param timeout for both questions together
    Answer ask(std::chrono::milliseconds timeout);

private:
    const std::uint32_t m_address;
    const std::uint16_t m_portmapperPort;
    std::uint16_t m_lastPort = 0; ///< that answered, for when the portmapper is away
    std::uint32_t m_transaction;
};

} // namespace orrisguard
