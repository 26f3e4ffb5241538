#pragma once

#include <twine/Server.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace twine::testing {

/// A folder of its own for the sockets of a test.
class SocketFolder {
public:
    SocketFolder() {
        char pattern[] = "/tmp/twine-test-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        m_path = made == nullptr ? std::string() : made;
    }
    ~SocketFolder() {
        ::unlink(socket().c_str());
        ::rmdir(m_path.c_str());
    }
    SocketFolder(const SocketFolder&) = delete;
    SocketFolder& operator=(const SocketFolder&) = delete;
    std::string socket() const { return m_path + "/daemon"; }

private:
    std::string m_path;
};

/// What a server told; any thread.
class Reports {
public:
    void add(const std::string& text) {
        const std::lock_guard lock(m_mutex);
        m_texts.push_back(text);
    }
    std::vector<std::string> all() const {
        const std::lock_guard lock(m_mutex);
        return m_texts;
    }
    bool mention(const std::string& part) const {
        const std::lock_guard lock(m_mutex);
        for (const std::string& text : m_texts) {
            if (text.find(part) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

/// Polls a condition for at most 20 seconds.
inline bool eventually(const std::function<bool()>& condition) {
    for (int turn = 0; turn < 4000; ++turn) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

} // namespace twine::testing
