#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <array>
#include <cstring>
#include <random>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

namespace load {

namespace {

constexpr auto RESEND_AFTER = std::chrono::seconds(1);
constexpr std::size_t LARGEST_DATAGRAM = 65536;

/// One call under way. Its transaction id is slot number plus a generation, so that a late answer
/// to an earlier call of the slot is not taken for that of the present one.
struct Slot {
    std::uint32_t xid = 0;
    std::size_t pair = 0;
    Clock::time_point sent;
    std::string call;
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

    void ask(std::size_t index) {
        Slot& slot = m_slots[index];
        slot.pair = std::uniform_int_distribution<std::size_t>(0, m_pairs.size() - 1)(m_random);
        slot.xid += static_cast<std::uint32_t>(m_slots.size());
        if (slot.xid % m_slots.size() != index) {
            slot.xid = static_cast<std::uint32_t>(m_slots.size() + index);
        }
        slot.call =
            encodeCall(slot.xid, MATCH, m_options.domain, m_options.map, m_pairs[slot.pair].first);
        send(index);
    }

    void send(std::size_t index) {
        Slot& slot = m_slots[index];
        slot.sent = Clock::now();
        ::send(m_sockets[index / m_options.window].get(), slot.call.data(), slot.call.size(), 0);
    }

    void drain(unsigned socket) {
        for (;;) {
            const ssize_t size =
                ::recv(m_sockets[socket].get(), m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
            if (size <= 0) {
                return;
            }
            take({m_buffer.data(), static_cast<std::size_t>(size)});
        }
    }

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
                send(i);
            }
        }
    }

    const Options& m_options;
    Pairs m_pairs;
    std::vector<Slot> m_slots;
    std::vector<Socket> m_sockets;
    std::vector<pollfd> m_polls;
    std::mt19937 m_random{4711}; // NOLINT: the same keys in every run
    std::array<char, LARGEST_DATAGRAM> m_buffer{};
    Clock::time_point m_nextCheck;
    Report m_report;
};

} // namespace

Report udpMatch(const Options& options) {
    return Matcher(options).run();
}

} // namespace load
