#pragma once

#include "daemon/transport/DatagramBatch.h"
#include "daemon/transport/TransportLimits.h"

#include <memory>
#include <span>

namespace nis {

/// The buffers of one thread that serves events. Made when first used, so that a thread that only
/// waits costs nothing.
struct Worker {
    static constexpr std::size_t STREAM_INPUT = 8192;
    static constexpr std::size_t STREAM_OUTPUT = 4 + REPLY_FRAGMENT; ///< with the record mark

    std::span<char> datagramsIn() { return take(m_datagramsIn, DatagramBatch::BUFFER); }
    std::span<char> datagramsOut() { return take(m_datagramsOut, DatagramBatch::BUFFER); }
    std::span<char> streamIn() { return take(m_streamIn, STREAM_INPUT); }
    std::span<char> streamOut() { return take(m_streamOut, STREAM_OUTPUT); }

    void release() {
        m_datagramsIn.reset();
        m_datagramsOut.reset();
        m_streamIn.reset();
        m_streamOut.reset();
    }

private:
    using Buffer = std::unique_ptr<char[]>;

    static std::span<char> take(Buffer& buffer, std::size_t size) {
        if (!buffer) {
            buffer.reset(new char[size]);
        }
        return {buffer.get(), size};
    }

    Buffer m_datagramsIn;
    Buffer m_datagramsOut;
    Buffer m_streamIn;
    Buffer m_streamOut;
};

} // namespace nis
