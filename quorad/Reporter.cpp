#include "Reporter.h"

namespace quorad {

void Reporter::report(const std::string& text) {
    const auto now = std::chrono::steady_clock::now();
    flush(now);
    const tessa::Lock lock(m_mutex);
    if (m_count == 0) {
        m_periodEnd = now + PERIOD;
    }
    if (++m_count <= BURST) {
        KARST_LOG(m_logger, tessa::LOG_WARN, "%s", text.c_str());
    }
}

void Reporter::flush(std::chrono::steady_clock::time_point now) {
    const tessa::Lock lock(m_mutex);
    if (m_count == 0 || now < m_periodEnd) {
        return;
    }
    if (m_count > BURST) {
        KARST_LOG(m_logger, tessa::LOG_WARN, "%u further messages about clients were left out",
                  m_count - BURST);
    }
    m_count = 0;
}

void DirectoryHealth::succeeded() {
    const tessa::Lock lock(m_mutex);
    if (m_failing) {
        m_failing = false;
        KARST_LOG(m_logger, tessa::LOG_INFORMATION, "The directory answers again");
    }
}

void DirectoryHealth::failed(const std::string& reason) {
    const tessa::Lock lock(m_mutex);
    if (m_failing) {
        KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "Directory still not available: %s",
                  reason.c_str());
        return;
    }
    m_failing = true;
    KARST_LOG(m_logger, tessa::LOG_WARN, "The directory cannot be asked: %s", reason.c_str());
}

} // namespace quorad
