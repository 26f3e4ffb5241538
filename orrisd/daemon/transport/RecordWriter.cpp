#include "daemon/transport/RecordWriter.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>

namespace nis {

namespace {

constexpr std::uint32_t LAST_FRAGMENT = 0x80000000U;

// The stream only encodes; the rest of the operations say no.
bool_t noLong(XDR*, long*) {
    return FALSE;
}
bool_t noBytes(XDR*, char*, u_int) {
    return FALSE;
}
bool_t noPosition(XDR*, u_int) {
    return FALSE;
}
void nothing(XDR*) {}
bool_t noControl(XDR*, int, void*) {
    return FALSE;
}

} // namespace

const struct XDR::xdr_ops RecordWriter::OPERATIONS = {
    noLong, putLong, noBytes, putBytes, position, noPosition, reserve, nothing, noControl};

RecordWriter::RecordWriter(std::span<char> buffer, RecordSink& sink)
    : m_buffer(buffer), m_sink(sink) {
    m_xdr.x_op = XDR_ENCODE;
    m_xdr.x_ops = &OPERATIONS;
    m_xdr.x_private = this;
}

RecordWriter& RecordWriter::of(XDR* xdr) {
    return *static_cast<RecordWriter*>(xdr->x_private);
}

bool RecordWriter::flush(bool last) {
    if (m_failed) {
        return false;
    }
    const std::size_t payload = m_used - MARK_SIZE;
    const std::uint32_t mark =
        htonl(static_cast<std::uint32_t>(payload) | (last ? LAST_FRAGMENT : 0));
    std::memcpy(m_buffer.data(), &mark, sizeof mark);
    if (m_sent == 0 && !last) {
        m_sink.longRecord();
    }
    m_failed = !m_sink.sendAll(m_buffer.data(), m_used);
    m_sent += payload;
    m_used = MARK_SIZE;
    return !m_failed;
}

bool RecordWriter::finish() {
    return flush(true);
}

bool_t RecordWriter::putLong(XDR* xdr, const long* value) {
    RecordWriter& self = of(xdr);
    const std::uint32_t word = htonl(static_cast<std::uint32_t>(*value));
    char bytes[sizeof word];
    std::memcpy(bytes, &word, sizeof word);
    return putBytes(&self.m_xdr, bytes, sizeof bytes);
}

bool_t RecordWriter::putBytes(XDR* xdr, const char* bytes, u_int count) {
    RecordWriter& self = of(xdr);
    std::size_t left = count;
    while (left > 0) {
        if (self.room() == 0 && !self.flush(false)) {
            return FALSE;
        }
        const std::size_t piece = std::min(left, self.room());
        std::memcpy(self.m_buffer.data() + self.m_used, bytes, piece);
        self.m_used += piece;
        bytes += piece;
        left -= piece;
    }
    return TRUE;
}

u_int RecordWriter::position(XDR* xdr) {
    const RecordWriter& self = of(xdr);
    return static_cast<u_int>(self.m_sent + self.m_used - MARK_SIZE);
}

int32_t* RecordWriter::reserve(XDR* xdr, u_int count) {
    RecordWriter& self = of(xdr);
    if (count > self.room() || self.m_used % sizeof(int32_t) != 0) {
        return nullptr;
    }
    void* place = self.m_buffer.data() + self.m_used;
    self.m_used += count;
    return static_cast<int32_t*>(place);
}

} // namespace nis
