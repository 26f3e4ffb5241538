#pragma once

#include "common/Globals.h"

#include <gtest/gtest.h>

#include <string>

namespace test {

/// Collects what the daemon's logger writes at a level and above.
class LogCapture {
public:
    explicit LogCapture(int level = tessa::LOG_DEBUGGING) {
        nis::logger->setThreshold(level);
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
    bool contains(const std::string& text) { return end().find(text) != std::string::npos; }

private:
    bool m_running = true;
    std::string m_text;
};

/// Sets one configuration for the life of the object.
class Configuration {
public:
    explicit Configuration(const std::string& text) {
        auto config = boost::make_shared<tessa::Properties>();
        config->parse(text, "test");
        nis::setConfig(config);
    }
    ~Configuration() { nis::setConfig(boost::make_shared<tessa::Properties>()); }
    Configuration(const Configuration&) = delete;
    Configuration& operator=(const Configuration&) = delete;
};

/// Clears the signal flags and the state of service, before and after a test.
class CleanFlags {
public:
    CleanFlags() { clear(); }
    ~CleanFlags() { clear(); }
    CleanFlags(const CleanFlags&) = delete;
    CleanFlags& operator=(const CleanFlags&) = delete;

private:
    static void clear() {
        nis::gShutdownNow = false;
        nis::gReconfigureNow = false;
        nis::gRebuildMapNow = false;
        nis::gRefreshMapNow = false;
        nis::gInitialized = false;
        nis::initializedBy = 0;
    }
};

} // namespace test
