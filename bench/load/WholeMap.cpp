#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <atomic>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include <sys/socket.h>

namespace load {

namespace {

using Expected = std::unordered_map<std::string_view, std::string_view>;

/// Compares the stream of a whole-map answer with the pairs: every one of them, once.
bool rightMap(std::string_view message, const Expected& expected) {
    Reader reader(message);
    for (int word = 0; word < 6; ++word) { // xid, REPLY, accepted, verifier, success
        reader.number();
    }
    std::size_t entries = 0;
    std::unordered_map<std::string_view, bool> seen;
    while (reader.number() != 0) {
        const auto status = static_cast<std::int32_t>(reader.number());
        const std::string_view value = reader.bytes();
        const std::string_view key = reader.bytes();
        const auto found = expected.find(key);
        if (!reader.good() || status != YP_TRUE || found == expected.end() ||
            found->second != value || !seen.emplace(key, true).second) {
            return false;
        }
        ++entries;
    }
    return reader.good() && reader.left() == 0 && entries == expected.size();
}

template <typename Transfer> Report inStreams(const Options& options, Transfer transfer) {
    Report report;
    std::atomic<std::uint64_t> answers{0};
    std::atomic<std::uint64_t> wrong{0};
    std::atomic<std::uint64_t> bytes{0};
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(options.seconds));
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < options.sockets; ++i) {
        threads.emplace_back([&] {
            std::string buffer;
            do {
                std::uint64_t received = 0;
                if (!transfer(buffer, received)) {
                    ++wrong;
                }
                bytes += received;
                ++answers;
            } while (Clock::now() < end && (options.count == 0 || answers < options.count));
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    report.answers = answers;
    report.wrong = wrong;
    report.bytes = bytes;
    return report;
}

} // namespace

Report wholeMap(const Options& options) {
    const std::string call =
        asRecord(encodeCall(1, ALL, options.domain, options.map, std::nullopt));
    const auto fetch = [&](std::string& buffer) {
        const Socket socket = connectTcp(options.port);
        return sendAll(socket.get(), call) ? receiveRecord(socket.get(), buffer) : std::nullopt;
    };
    // Comparing costs more than receiving: one answer is compared in full before the clock starts,
    // those after it by their size.
    std::size_t rightSize = 0;
    {
        const Pairs pairs = readPairs(options.pairs);
        const Expected expected(pairs.begin(), pairs.end());
        std::string buffer;
        const auto answer = fetch(buffer);
        if (!answer || !rightMap(*answer, expected)) {
            throw std::runtime_error("the whole map is not what it should be");
        }
        rightSize = answer->size();
    }
    Report report = inStreams(options, [&](std::string& buffer, std::uint64_t& received) {
        received = fetch(buffer).value_or("").size();
        return received == rightSize;
    });
    report.work = "all";
    return report;
}

Report plainStream(const Options& options) {
    Report report = inStreams(options, [&](std::string& buffer, std::uint64_t& received) {
        const Socket socket = connectTcp(options.port);
        buffer.resize(65536);
        ssize_t got = 0;
        while ((got = ::recv(socket.get(), buffer.data(), buffer.size(), 0)) > 0) {
            received += static_cast<std::uint64_t>(got);
        }
        return received == options.size;
    });
    report.work = "stream";
    return report;
}

} // namespace load
