#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <array>
#include <stdexcept>
#include <unordered_map>

#include <sys/socket.h>
#include <sys/time.h>

namespace load {

namespace {

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

} // namespace

Report walk(const Options& options) {
    std::unordered_map<std::string, std::string> expected;
    for (auto& pair : readPairs(options.pairs)) {
        expected.insert(std::move(pair));
    }
    const std::size_t total = expected.size();
    const Socket socket = connectUdp(options.port);
    const timeval patience{1, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);

    Report report;
    report.work = options.echo ? "walk-echo" : "walk";
    std::string buffer(65536, '\0');
    std::string key;
    std::uint32_t xid = 1;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(options.seconds));
    bool ended = false;
    while (!ended && Clock::now() < end) {
        const auto sent = Clock::now();
        const std::string call =
            key.empty() ? encodeCall(xid, FIRST, options.domain, options.map, std::nullopt)
                        : encodeCall(xid, NEXT, options.domain, options.map, key);
        ++xid;
        const std::string_view message = callOnce(socket.get(), call, report, buffer);
        report.add(Clock::now() - sent);
        ++report.answers;
        report.bytes += message.size();
        if (options.echo) {
            key = "00000000"; // a call of the size that a walk sends
            continue;
        }
        const Answer answer = decodeAnswer(message, true);
        ended = answer.status == YP_NOMORE;
        if (ended) {
            break;
        }
        key = answer.key;
        const auto found = expected.find(key);
        if (!answer.accepted || found == expected.end() || found->second != answer.value) {
            ++report.wrong;
            break;
        }
        expected.erase(found); // a key that comes twice is wrong
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (ended && !options.echo) {
        report.wrong += expected.size();
    } else if (!options.echo && report.answers > total) {
        ++report.wrong;
    }
    return report;
}

} // namespace load
