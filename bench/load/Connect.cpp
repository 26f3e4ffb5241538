#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <random>

namespace load {

Report connectMatch(const Options& options) {
    const Pairs pairs = readPairs(options.pairs);
    std::mt19937 random(4711); // NOLINT: the same keys in every run
    Report report;
    report.work = options.echo ? "connect-echo" : "connect";
    std::string buffer;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(options.seconds));
    std::uint32_t xid = 1;
    while (Clock::now() < end && (options.count == 0 || report.answers < options.count)) {
        const auto& [key, value] =
            pairs[std::uniform_int_distribution<std::size_t>(0, pairs.size() - 1)(random)];
        const auto sent = Clock::now();
        const Socket socket = connectTcp(options.port);
        const std::string call =
            asRecord(encodeCall(xid++, MATCH, options.domain, options.map, key));
        const auto message =
            sendAll(socket.get(), call) ? receiveRecord(socket.get(), buffer) : std::nullopt;
        report.add(Clock::now() - sent);
        ++report.answers;
        report.bytes += message.value_or("").size();
        const Answer answer = decodeAnswer(message.value_or(""), false);
        if (!message || (!options.echo && (!answer.accepted || answer.value != value))) {
            ++report.wrong;
        }
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return report;
}

} // namespace load
