#include "Watch.h"

#include <algorithm>
#include <csignal>

namespace orrisguard {

Watch::Watch(Surroundings& surroundings, const Settings& settings, const Process& daemon,
             int restarts)
    : m_surroundings(surroundings), m_settings(settings), m_daemon(daemon), m_restarts(restarts),
      m_begin(surroundings.now()), m_logger(tessa::Logger::get(LOGGER_NAME)) {}

int Watch::run() {
    watchUntilGone();
    // A daemon that has lived for a while has not failed in a row with the one before it.
    if (m_surroundings.now() - m_begin > m_settings.longestPause) {
        m_restarts = 0;
    }
    return restart() ? 0 : 1;
}

void Watch::watchUntilGone() {
    Surroundings::Time deadline = m_begin + m_settings.startup + m_settings.death;
    while (!m_surroundings.waitForEnd(m_daemon, m_settings.frequency)) {
        const Answer answer = m_surroundings.ask(m_settings.checkTimeout);
        if (answer == Answer::ANSWERED) {
            deadline = m_surroundings.now() + m_settings.death;
        } else if (answer == Answer::SILENT) {
            KARST_LOG(m_logger, tessa::LOG_INFORMATION, "orrisd (pid %d) does not answer",
                      m_daemon.pid);
            if (m_surroundings.now() >= deadline) {
                end();
                return;
            }
        }
    }
    KARST_LOG(m_logger, tessa::LOG_WARN, "orrisd (pid %d) is gone", m_daemon.pid);
}

void Watch::end() {
    KARST_LOG(m_logger, tessa::LOG_FAILURE,
              "orrisd (pid %d) has not answered for too long: ending it", m_daemon.pid);
    m_surroundings.stepAside();
    m_surroundings.signal(m_daemon, SIGTERM);
    if (!m_surroundings.waitForEnd(m_daemon, END_PATIENCE)) {
        KARST_LOG(m_logger, tessa::LOG_FAILURE, "orrisd (pid %d) does not end: killing it",
                  m_daemon.pid);
        m_surroundings.signal(m_daemon, SIGKILL);
        // In the middle of a system call that does not return it lives on, and keeps its lock.
        m_surroundings.waitForEnd(m_daemon, END_PATIENCE);
    }
}

std::chrono::seconds Watch::pauseBefore(int restart) const {
    constexpr int LARGEST_SHIFT = 20;
    const std::chrono::seconds pause{1L << std::min(restart, LARGEST_SHIFT)};
    return std::min(pause, m_settings.longestPause);
}

// Starts the daemon again, each time after a longer pause. True when one runs.
bool Watch::restart() {
    while (m_restarts < m_settings.mostRestarts) {
        m_surroundings.sleep(pauseBefore(m_restarts));
        const Process other = m_surroundings.running();
        if (other.exists() && !(other == m_daemon)) {
            KARST_LOG(m_logger, tessa::LOG_INFORMATION,
                      "orrisd was started by someone else (pid %d)", other.pid);
            return true;
        }
        ++m_restarts;
        KARST_LOG(m_logger, tessa::LOG_WARN, "Starting orrisd again (%d of at most %d times)",
                  m_restarts, m_settings.mostRestarts);
        if (m_surroundings.launch(m_restarts) && awaitSuccessor()) {
            return true;
        }
        KARST_LOG(m_logger, tessa::LOG_FAILURE, "orrisd could not be started");
    }
    KARST_LOG(m_logger, tessa::LOG_FATAL, "orrisd was started %d times in a row: giving up",
              m_restarts);
    return false;
}

bool Watch::awaitSuccessor() {
    const Surroundings::Time deadline = m_surroundings.now() + START_PATIENCE;
    while (m_surroundings.now() < deadline) {
        const Process successor = m_surroundings.running();
        if (successor.exists() && !(successor == m_daemon)) {
            KARST_LOG(m_logger, tessa::LOG_INFORMATION, "orrisd runs again (pid %d)",
                      successor.pid);
            return true;
        }
        // One that came and went between two looks took its own watchdog along.
        const Launched state = m_surroundings.launched();
        if (state == Launched::ENDED) {
            KARST_LOG(m_logger, tessa::LOG_INFORMATION, "orrisd ran again and was ended");
            return true;
        }
        if (state == Launched::FAILED) {
            return false;
        }
        m_surroundings.sleep(std::chrono::seconds(1));
    }
    return false;
}

} // namespace orrisguard
