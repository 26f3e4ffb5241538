#pragma once

#include "common/Globals.h"
#include "yp/YpProtocol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace test {

/// Text that a record's pointers can point to.
class Text {
public:
    explicit Text(std::string text) : m_text(std::move(text)) {}
    char* data() { return m_text.data(); }
    u_int size() const { return static_cast<u_int>(m_text.size()); }

private:
    std::string m_text;
};

inline std::string bytes(const nis::keydat& key) {
    return key.keydat_val == nullptr ? "" : std::string(key.keydat_val, key.keydat_len);
}
inline std::string bytes(const nis::valdat& value) {
    return value.valdat_val == nullptr ? "" : std::string(value.valdat_val, value.valdat_len);
}

/// Collects what the daemon's logger writes at debug level.
class LogCapture {
public:
    LogCapture() {
        nis::logger->setThreshold(tessa::LOG_DEBUGGING);
        testing::internal::CaptureStderr();
    }
    ~LogCapture() { end(); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string end() {
        if (m_running) {
            m_text = testing::internal::GetCapturedStderr();
            nis::logger->setThreshold(tessa::LOG_INFORMATION);
            m_running = false;
        }
        return m_text;
    }

private:
    bool m_running = true;
    std::string m_text;
};

/// A record that its XDR routine frees.
template <typename Record, bool_t (*XDR_ROUTINE)(XDR*, Record*)> class Freed {
public:
    Freed() { std::memset(&m_record, 0, sizeof m_record); }
    ~Freed() {
        XDR xdr{};
        xdr.x_op = XDR_FREE;
        EXPECT_EQ(XDR_ROUTINE(&xdr, &m_record), TRUE);
    }
    Freed(const Freed&) = delete;
    Freed& operator=(const Freed&) = delete;
    Record& operator*() { return m_record; }
    Record* operator->() { return &m_record; }

private:
    Record m_record;
};

} // namespace test
