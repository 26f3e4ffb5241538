#pragma once

#include <rpc/rpc.h>

#include <cstddef>
#include <span>

namespace nis {

/// Where a record's fragments go.
class RecordSink {
public:
    virtual ~RecordSink() = default;
    /// Sends all bytes, waiting for the client if need be.
    /// @return false when the connection is of no further use
    virtual bool sendAll(const char* data, std::size_t size) = 0;
    /// Called before the first fragment of a record that needs more than one.
    virtual void longRecord() = 0;
};

/// An XDR encode stream that writes one record of a TCP stream: it collects bytes in a buffer and
/// sends them as a fragment whenever that is full. For one thread and one record.
class RecordWriter {
public:
    /// @param buffer room for the record mark and a fragment; aligned for 32-bit words
    RecordWriter(std::span<char> buffer, RecordSink& sink);
    RecordWriter(const RecordWriter&) = delete;
    RecordWriter& operator=(const RecordWriter&) = delete;

    XDR* xdr() { return &m_xdr; }
    /// Sends what is left as the last fragment.
    bool finish();
    /// Whether part of the record has gone out (or was lost on the way), so that it can no longer
    /// be taken back.
    bool committed() const { return m_sent > 0 || m_failed; }

private:
    static constexpr std::size_t MARK_SIZE = 4;
    static const struct XDR::xdr_ops OPERATIONS;

    static RecordWriter& of(XDR* xdr);
    static bool_t putLong(XDR* xdr, const long* value);
    static bool_t putBytes(XDR* xdr, const char* bytes, u_int count);
    static u_int position(XDR* xdr);
    static int32_t* reserve(XDR* xdr, u_int count);

    bool flush(bool last);
    std::size_t room() const { return m_buffer.size() - m_used; }

    std::span<char> m_buffer;
    RecordSink& m_sink;
    XDR m_xdr{};
    std::size_t m_used = MARK_SIZE;
    std::size_t m_sent = 0; ///< payload bytes of the fragments before
    bool m_failed = false;
};

} // namespace nis
