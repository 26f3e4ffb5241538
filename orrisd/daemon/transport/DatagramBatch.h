#pragma once

#include "daemon/transport/TransportLimits.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <optional>
#include <span>

#include <netinet/in.h>
#include <sys/socket.h>

namespace nis {

/// Datagrams that one thread receives with one system call, serves one after the other, and whose
/// replies leave with one system call. Replies leave from the address that the call came to.
///
/// The thread that owns the batch does all of that without a lock. While it is stuck with a call,
/// another thread may take the rest over, once; see takeOver().
class DatagramBatch {
public:
    static constexpr unsigned MOST = 8;
    static constexpr std::size_t BUFFER = MOST * DATAGRAM_MAX;
    static constexpr unsigned NONE = MOST;

    /// @param in, out BUFFER bytes each, of no other use while the batch lives
    DatagramBatch(int socket, std::span<char> in, std::span<char> out);

    // -- what the owner calls

    /// Receives what is there, at most as many as lately came at once and some more.
    /// @param flags MSG_DONTWAIT, or MSG_WAITFORONE to wait for the first one as long as the
    ///        socket's time limit says
    /// @return how many; 0 when there is none, or receiving failed
    unsigned receive(int flags);
    /// The next one to serve. @return its index, or NONE when all are served or taken over
    unsigned next();
    /// Bytes of a datagram; empty when it did not fit.
    std::span<char> call(unsigned index);
    const sockaddr_in& peer(unsigned index) const { return m_slots[index].peer; }
    /// Where the reply to it goes.
    std::span<char> replyBuffer(unsigned index);
    void setReply(unsigned index, std::size_t size) { m_slots[index].reply = size; }
    /// Sends the replies that were not sent yet.
    void sendReplies();
    /// Whether another thread has taken the rest over. From then on sendReplies() needs the lock
    /// that the other thread held.
    bool takenOver() const { return m_takenOver; }

    // -- what another thread calls, under a lock of its own

    /// Takes into this empty batch what the owner of the other has not begun to serve, and sends
    /// the replies that it has finished.
    /// @return how many there are to serve now; nothing, with nothing done, when the owner is not
    ///         serving
    std::optional<unsigned> takeOver(DatagramBatch& other);

private:
    // How far the owner is: the index of the next one, and from this bit on how many there are.
    static constexpr unsigned COUNT_SHIFT = 8;
    static constexpr unsigned INDEX_MASK = (1U << COUNT_SHIFT) - 1;
    static constexpr unsigned TAKEN_OVER = 1U << 31;
    static constexpr unsigned NOTHING = 1; ///< behind the last one of none

    struct Slot {
        sockaddr_in peer{};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
        std::size_t controlLength = 0;
        std::size_t call = 0;  ///< bytes
        std::size_t reply = 0; ///< bytes, 0: none
    };

    static bool isServing(unsigned progress);
    void begin(unsigned count);
    msghdr header(unsigned index, iovec& piece, std::size_t controlLength);
    void note(unsigned index, const mmsghdr& received);
    void sendReplies(unsigned end);

    const int m_socket;
    const std::span<char> m_in;
    const std::span<char> m_out;
    std::array<Slot, MOST> m_slots{};
    unsigned m_ask = 1;   ///< how many to ask for
    unsigned m_count = 0; ///< whose replies the owner sends
    unsigned m_sent = 0;  ///< replies before this one have left
    std::atomic<unsigned> m_progress{NOTHING};
    bool m_takenOver = false; ///< the owner's knowledge of it
};

} // namespace nis
