#include "load/Net.h"
#include "load/Rpc.h"
#include "load/Works.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include <arpa/inet.h>
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

/// Takes a record in as the client of a plain stream takes bytes: through a window, without keeping
/// them. The marks of the fragments lie anywhere in it.
class RecordWindow {
public:
    /// @return the record's bytes without marks; nothing when the peer was gone before its end
    static std::optional<std::uint64_t> receive(int socket, std::string& buffer) {
        buffer.resize(WINDOW);
        RecordWindow window;
        ssize_t got = 0;
        while (!window.m_whole && (got = ::recv(socket, buffer.data(), buffer.size(), 0)) > 0) {
            window.take({buffer.data(), static_cast<std::size_t>(got)});
        }
        return window.m_whole ? std::optional(window.m_size) : std::nullopt;
    }
    static constexpr std::size_t WINDOW = 65536;

private:
    void take(std::string_view bytes) {
        while (!bytes.empty() && !m_whole) {
            if (m_left == 0) {
                const std::size_t piece = std::min(bytes.size(), sizeof m_mark - m_markSize);
                std::memcpy(reinterpret_cast<char*>(&m_mark) + m_markSize, bytes.data(), piece);
                m_markSize += piece;
                bytes.remove_prefix(piece);
                if (m_markSize == sizeof m_mark) {
                    m_markSize = 0;
                    m_last = (ntohl(m_mark) & LAST_FRAGMENT) != 0;
                    m_left = ntohl(m_mark) & ~LAST_FRAGMENT;
                    m_whole = m_last && m_left == 0;
                }
                continue;
            }
            const std::size_t piece = std::min(bytes.size(), m_left);
            m_size += piece;
            m_left -= piece;
            bytes.remove_prefix(piece);
            m_whole = m_last && m_left == 0;
        }
    }

    static constexpr std::uint32_t LAST_FRAGMENT = 0x80000000U;

    std::uint32_t m_mark = 0;
    std::size_t m_markSize = 0;
    std::size_t m_left = 0; ///< of the fragment
    std::uint64_t m_size = 0;
    bool m_last = false;
    bool m_whole = false;
};

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
    const auto ask = [&](const Socket& socket) { return sendAll(socket.get(), call); };
    // Comparing costs more than receiving: one answer is compared in full before the clock starts,
    // those after it by their size.
    std::size_t rightSize = 0;
    {
        const Pairs pairs = readPairs(options.pairs);
        const Expected expected(pairs.begin(), pairs.end());
        std::string buffer;
        const Socket socket = connectTcp(options.port);
        const auto answer = ask(socket) ? receiveRecord(socket.get(), buffer) : std::nullopt;
        if (!answer || !rightMap(*answer, expected)) {
            throw std::runtime_error("the whole map is not what it should be");
        }
        rightSize = answer->size();
    }
    Report report = inStreams(options, [&](std::string& buffer, std::uint64_t& received) {
        const Socket socket = connectTcp(options.port);
        if (ask(socket)) {
            received = RecordWindow::receive(socket.get(), buffer).value_or(0);
        }
        return received == rightSize;
    });
    report.work = "all";
    return report;
}

Report plainStream(const Options& options) {
    Report report = inStreams(options, [&](std::string& buffer, std::uint64_t& received) {
        const Socket socket = connectTcp(options.port);
        buffer.resize(RecordWindow::WINDOW);
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
