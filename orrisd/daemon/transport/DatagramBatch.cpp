#include "daemon/transport/DatagramBatch.h"

#include "common/Globals.h"

#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nis {

namespace {

/// The reply goes back from the same address, by whatever interface the routes say.
void forgetInterface(msghdr& header) {
    for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr;
         item = CMSG_NXTHDR(&header, item)) {
        if (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_PKTINFO) {
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(item), sizeof info);
            info.ipi_ifindex = 0;
            std::memcpy(CMSG_DATA(item), &info, sizeof info);
        }
    }
}

} // namespace

DatagramBatch::DatagramBatch(int socket, std::span<char> in, std::span<char> out)
    : m_socket(socket), m_in(in), m_out(out) {}

std::span<char> DatagramBatch::call(unsigned index) {
    return m_in.subspan(index * DATAGRAM_MAX, m_slots[index].call);
}

std::span<char> DatagramBatch::replyBuffer(unsigned index) {
    return m_out.subspan(index * DATAGRAM_MAX, DATAGRAM_MAX);
}

msghdr DatagramBatch::header(unsigned index, iovec& piece, std::size_t controlLength) {
    Slot& slot = m_slots[index];
    msghdr header{};
    header.msg_name = &slot.peer;
    header.msg_namelen = sizeof slot.peer;
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = slot.control;
    header.msg_controllen = controlLength;
    return header;
}

/// From here on next() tells, and another thread may ask, what there is to serve.
void DatagramBatch::begin(unsigned count) {
    m_count = count;
    m_sent = 0;
    m_progress.store(count > 0 ? count << COUNT_SHIFT : NOTHING, std::memory_order_release);
}

unsigned DatagramBatch::receive(int flags) {
    std::array<iovec, MOST> pieces{};
    std::array<mmsghdr, MOST> headers{};
    for (unsigned i = 0; i < m_ask; ++i) {
        pieces[i] = {m_in.data() + i * DATAGRAM_MAX, DATAGRAM_MAX};
        headers[i].msg_hdr = header(i, pieces[i], sizeof m_slots[i].control);
    }
    int count = 0;
    do {
        count = ::recvmmsg(m_socket, headers.data(), m_ask, flags, nullptr);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Receiving over UDP failed: %s",
                  tessa::errorText(errno).c_str());
    }
    const auto got = static_cast<unsigned>(std::max(count, 0));
    for (unsigned i = 0; i < got; ++i) {
        note(i, headers[i]);
    }
    // To ask for more than there is costs a look into the empty queue.
    m_ask = got == m_ask ? std::min(2 * m_ask, MOST) : std::max(1U, got);
    begin(got);
    return got;
}

void DatagramBatch::note(unsigned index, const mmsghdr& received) {
    Slot& slot = m_slots[index];
    msghdr header = received.msg_hdr;
    forgetInterface(header);
    slot.controlLength = header.msg_controllen;
    const bool whole =
        (header.msg_flags & MSG_TRUNC) == 0 && header.msg_namelen == sizeof slot.peer;
    slot.call = whole ? received.msg_len : 0;
    slot.reply = 0;
}

unsigned DatagramBatch::next() {
    const unsigned progress = m_progress.fetch_add(1, std::memory_order_acq_rel);
    m_takenOver = (progress & TAKEN_OVER) != 0;
    const unsigned index = progress & INDEX_MASK;
    return !m_takenOver && index < progress >> COUNT_SHIFT ? index : NONE;
}

void DatagramBatch::sendReplies() {
    sendReplies(m_count);
}

void DatagramBatch::sendReplies(unsigned end) {
    std::array<iovec, MOST> pieces{};
    std::array<mmsghdr, MOST> headers{};
    unsigned count = 0;
    for (unsigned i = m_sent; i < end; ++i) {
        if (m_slots[i].reply > 0) {
            pieces[count] = {replyBuffer(i).data(), m_slots[i].reply};
            headers[count].msg_hdr = header(i, pieces[count], m_slots[i].controlLength);
            ++count;
        }
    }
    m_sent = std::max(m_sent, end);
    unsigned done = 0;
    while (done < count) {
        const int sent =
            ::sendmmsg(m_socket, &headers[done], count - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            done += static_cast<unsigned>(sent);
        } else if (sent == 0 || errno != EINTR) {
            // The client asks again; the others' replies are not to suffer.
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Replying over UDP failed: %s",
                      tessa::errorText(errno).c_str());
            ++done;
        }
    }
}

/// Whether the owner has calls before it or is with one; behind the last one it receives.
bool DatagramBatch::isServing(unsigned progress) {
    return (progress & TAKEN_OVER) == 0 && (progress & INDEX_MASK) <= progress >> COUNT_SHIFT;
}

std::optional<unsigned> DatagramBatch::takeOver(DatagramBatch& other) {
    unsigned progress = other.m_progress.load(std::memory_order_relaxed);
    do {
        if (!isServing(progress)) {
            return std::nullopt;
        }
    } while (
        !other.m_progress.compare_exchange_weak(progress, TAKEN_OVER, std::memory_order_acq_rel));
    const unsigned first = progress & INDEX_MASK;
    const unsigned end = progress >> COUNT_SHIFT;
    other.sendReplies(std::max(first, 1U) - 1); // the last begun may not be finished
    other.m_count = first;
    unsigned count = 0;
    for (unsigned i = first; i < end; ++i, ++count) {
        const std::span<char> call = other.call(i);
        m_slots[count] = other.m_slots[i];
        std::copy(call.begin(), call.end(), m_in.subspan(count * DATAGRAM_MAX).begin());
    }
    begin(count);
    return count;
}

} // namespace nis
