#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <array>
#include <cstring>
#include <random>
#include <utility>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

namespace load {

namespace {

constexpr auto RESEND_AFTER = std::chrono::seconds(1);
constexpr std::size_t LARGEST_DATAGRAM = 9000; // protocol and baseline stay below
constexpr unsigned BATCH = 16;                 ///< datagrams moved by one system call

/// One call under way. Its transaction id is slot number plus a generation, so that a late answer
/// to an earlier call of the slot is not taken for that of the present one.
struct Slot {
    std::uint32_t xid = 0;
    std::size_t pair = 0;
    Clock::time_point sent;
    std::string call;
};

/// Datagrams that go through a socket in one system call: the generator shares the processors with
/// what it measures, and should need as little of them as it can.
class Batch {
public:
    Batch() {
        for (unsigned i = 0; i < BATCH; ++i) {
            m_headers[i].msg_hdr.msg_iov = &m_pieces[i];
            m_headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
    void add(void* bytes, std::size_t size) { m_pieces[m_count++] = {bytes, size}; }
    unsigned count() const { return m_count; }
    bool full() const { return m_count == BATCH; }
    /// Sends what was added, and forgets it. What the socket does not take is lost, as on a wire.
    void send(int socket) {
        if (m_count > 0) {
            ::sendmmsg(socket, m_headers.data(), std::exchange(m_count, 0), 0);
        }
    }
    /// Receives without waiting into the places that were added, and forgets them.
    /// @return how many datagrams came
    unsigned receive(int socket) {
        const int got =
            ::recvmmsg(socket, m_headers.data(), std::exchange(m_count, 0), MSG_DONTWAIT, nullptr);
        return got < 0 ? 0 : static_cast<unsigned>(got);
    }
    std::size_t sizeOf(unsigned index) const { return m_headers[index].msg_len; }

private:
    std::array<iovec, BATCH> m_pieces{};
    std::array<mmsghdr, BATCH> m_headers{};
    unsigned m_count = 0;
};

class Matcher {
public:
    explicit Matcher(const Options& options)
        : m_options(options), m_pairs(readPairs(options.pairs)),
          m_slots(std::size_t{options.sockets} * options.window) {
        for (unsigned i = 0; i < options.sockets; ++i) {
            m_sockets.push_back(connectUdp(options.port));
            m_polls.push_back({m_sockets.back().get(), POLLIN, 0});
        }
        m_report.work = options.echo ? "udp-echo" : "udp-match";
        m_report.latencies.reserve(4'000'000);
    }

    Report run() {
        const auto start = Clock::now();
        const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(m_options.seconds));
        for (std::size_t i = 0; i < m_slots.size(); ++i) {
            ask(i);
            m_out.send(socketOf(i));
        }
        while (Clock::now() < end && !enough()) {
            ::poll(m_polls.data(), m_polls.size(), 100);
            for (unsigned i = 0; i < m_polls.size(); ++i) {
                if ((m_polls[i].revents & POLLIN) != 0) {
                    drain(i);
                }
            }
            askAgain();
        }
        m_report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return std::move(m_report);
    }

private:
    bool enough() const { return m_options.count != 0 && m_report.answers >= m_options.count; }

    /// Prepares the slot's next call and adds it to what goes out.
    void ask(std::size_t index) {
        Slot& slot = m_slots[index];
        slot.pair = std::uniform_int_distribution<std::size_t>(0, m_pairs.size() - 1)(m_random);
        slot.xid += static_cast<std::uint32_t>(m_slots.size());
        if (slot.xid % m_slots.size() != index) {
            slot.xid = static_cast<std::uint32_t>(m_slots.size() + index);
        }
        slot.call =
            encodeCall(slot.xid, MATCH, m_options.domain, m_options.map, m_pairs[slot.pair].first);
        add(index);
    }

    void add(std::size_t index) {
        Slot& slot = m_slots[index];
        slot.sent = Clock::now();
        m_out.add(slot.call.data(), slot.call.size());
    }

    int socketOf(std::size_t index) const { return m_sockets[index / m_options.window].get(); }

    /// Takes the answers of one socket and asks as many new questions, until no more are there.
    void drain(unsigned socket) {
        unsigned got = 0;
        do {
            while (!m_in.full()) {
                m_in.add(place(m_in.count()), LARGEST_DATAGRAM);
            }
            got = m_in.receive(m_sockets[socket].get());
            for (unsigned i = 0; i < got; ++i) {
                take({place(i), m_in.sizeOf(i)});
            }
            m_out.send(m_sockets[socket].get());
        } while (got == BATCH);
    }

    char* place(unsigned index) { return &m_buffer[index * LARGEST_DATAGRAM]; }

    void take(std::string_view message) {
        const std::uint32_t xid = transactionId(message);
        const std::size_t index = xid % m_slots.size();
        Slot& slot = m_slots[index];
        if (slot.xid != xid) {
            return; // the answer to a call that was given up
        }
        m_report.add(Clock::now() - slot.sent);
        ++m_report.answers;
        m_report.bytes += message.size();
        if (!m_options.echo) {
            const Answer answer = decodeAnswer(message, false);
            if (!answer.accepted || answer.status != YP_TRUE ||
                answer.value != m_pairs[slot.pair].second) {
                ++m_report.wrong;
            }
        }
        ask(index);
    }

    void askAgain() {
        const auto now = Clock::now();
        if (now < m_nextCheck) {
            return;
        }
        m_nextCheck = now + RESEND_AFTER / 4;
        for (std::size_t i = 0; i < m_slots.size(); ++i) {
            if (now - m_slots[i].sent > RESEND_AFTER) {
                ++m_report.lost;
                add(i);
                m_out.send(socketOf(i));
            }
        }
    }

    const Options& m_options;
    Pairs m_pairs;
    std::vector<Slot> m_slots;
    std::vector<Socket> m_sockets;
    std::vector<pollfd> m_polls;
    std::mt19937 m_random{4711}; // NOLINT: the same keys in every run
    std::array<char, BATCH * LARGEST_DATAGRAM> m_buffer{};
    Batch m_in;
    Batch m_out;
    Clock::time_point m_nextCheck;
    Report m_report;
};

} // namespace

Report udpMatch(const Options& options) {
    return Matcher(options).run();
}

} // namespace load
