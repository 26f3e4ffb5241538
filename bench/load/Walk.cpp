#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <stdexcept>
#include <unordered_map>

#include <sys/socket.h>
#include <sys/time.h>

namespace load {

namespace {

/// What the server answered, kept for a look afterwards: comparing costs the client more than
/// receiving, and would be measured.
class Answers {
public:
    void keep(std::string_view message) {
        m_ends.push_back(m_bytes.size() + message.size());
        m_bytes.append(message);
    }
    /// How many answers are wrong: unknown keys, other values, keys that come twice, or never.
    std::uint64_t compare(const Pairs& pairs, bool wholeMap) const {
        std::unordered_map<std::string_view, std::string_view> expected(pairs.begin(), pairs.end());
        std::uint64_t wrong = 0;
        std::size_t begin = 0;
        for (const std::size_t end : m_ends) {
            const Answer answer =
                decodeAnswer(std::string_view(m_bytes).substr(begin, end - begin), true);
            begin = end;
            const auto found = expected.find(answer.key);
            if (!answer.accepted || answer.status != YP_TRUE || found == expected.end() ||
                found->second != answer.value) {
                ++wrong;
            } else {
                expected.erase(found);
            }
        }
        return wrong + (wholeMap ? expected.size() : 0);
    }

private:
    std::string m_bytes;
    std::vector<std::size_t> m_ends;
};

/// One call over UDP, asked again when no answer comes; gives up after ten tries.
std::string_view callOnce(int socket, const std::string& call, Report& report,
                          std::string& buffer) {
    for (int tries = 0; tries < 10; ++tries) {
        ::send(socket, call.data(), call.size(), 0);
        for (;;) {
            const ssize_t size = ::recv(socket, buffer.data(), buffer.size(), 0);
            if (size <= 0) {
                break;
            }
            const std::string_view message(buffer.data(), static_cast<std::size_t>(size));
            if (transactionId(message) == transactionId(call)) {
                return message;
            }
        }
        ++report.lost;
    }
    throw std::runtime_error("no answer");
}

Socket patientSocket(std::uint16_t port) {
    Socket socket = connectUdp(port);
    const timeval patience{1, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return socket;
}

} // namespace

Report walk(const Options& options) {
    const Pairs pairs = readPairs(options.pairs);
    const Socket socket = patientSocket(options.port);
    Report report;
    report.work = options.echo ? "walk-echo" : "walk";
    Answers answers;
    std::string buffer(65536, '\0');
    // The baseline is sent calls of the size that a walk sends.
    std::string key = options.echo ? pairs.front().first : "";
    std::uint32_t xid = 1;
    bool ended = false;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(options.seconds));
    while (!ended && Clock::now() < end && (options.count == 0 || report.answers < options.count)) {
        const auto sent = Clock::now();
        const std::string call =
            key.empty() ? encodeCall(xid, FIRST, options.domain, options.map, std::nullopt)
                        : encodeCall(xid, NEXT, options.domain, options.map, key);
        ++xid;
        const std::string_view message = callOnce(socket.get(), call, report, buffer);
        report.add(Clock::now() - sent);
        ++report.answers;
        report.bytes += message.size();
        const Answer answer = decodeAnswer(message, true);
        ended = !options.echo && answer.status != YP_TRUE;
        if (!ended) {
            answers.keep(message);
        }
        if (!options.echo) {
            key = answer.key;
        }
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!options.echo) {
        report.wrong = answers.compare(pairs, ended);
    }
    return report;
}

} // namespace load
