#include "karst/ReaderWriterLock.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace tessa {

namespace {

/// How long a waiting writer may keep new readers out, and how long they are let in again when the
/// readers that it waits for did not leave in that time.
constexpr std::chrono::milliseconds WRITERS_TURN{20};
constexpr std::chrono::milliseconds READERS_TURN{200};

} // namespace

bool ReaderWriterLock::isReader(std::thread::id id) const {
    return std::find(m_readers.begin(), m_readers.end(), id) != m_readers.end();
}

bool ReaderWriterLock::mayRead() const {
    return m_writerDepth == 0 && !m_writersFirst;
}

void ReaderWriterLock::incrReaderCount() {
    m_readers.push_back(std::this_thread::get_id());
}

void ReaderWriterLock::decrReaderCount() {
    const auto mine = std::find(m_readers.begin(), m_readers.end(), std::this_thread::get_id());
    if (mine != m_readers.end()) {
        m_readers.erase(mine);
    }
}

void ReaderWriterLock::lockRead() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!mayRead()) {
        const auto self = std::this_thread::get_id();
        // Whoever is inside already must not wait for a writer that waits for it.
        if (m_writer != self && !isReader(self)) {
            m_changed.wait(lock, [this] { return mayRead(); });
        }
    }
    incrReaderCount();
}

void ReaderWriterLock::unlockRead() {
    bool wake = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        decrReaderCount();
        wake = m_readers.empty() && m_waitingWriters > 0;
    }
    if (wake) {
        m_changed.notify_all();
    }
}

void ReaderWriterLock::lockWrite() {
    const auto self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_writer == self && m_writerDepth > 0) {
        ++m_writerDepth;
        return;
    }
    if (isReader(self)) {
        throw std::logic_error("a reader cannot become the writer");
    }
    const auto free = [this] { return m_writerDepth == 0 && m_readers.empty(); };
    ++m_waitingWriters;
    while (!free()) {
        m_writersFirst = true;
        if (m_changed.wait_for(lock, WRITERS_TURN, free)) {
            break;
        }
        m_writersFirst = false;
        m_changed.notify_all();
        m_changed.wait_for(lock, READERS_TURN, free);
    }
    --m_waitingWriters;
    m_writersFirst = false;
    m_writer = self;
    m_writerDepth = 1;
}

void ReaderWriterLock::unlockWrite() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (--m_writerDepth > 0) {
            return;
        }
        m_writer = std::thread::id();
    }
    m_changed.notify_all();
}

bool ReaderWriterLock::holdsReaderLock() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return isReader(std::this_thread::get_id());
}

bool ReaderWriterLock::holdsWriterLock() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_writerDepth > 0 && m_writer == std::this_thread::get_id();
}

int ReaderWriterLock::readerCount() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_readers.size());
}

} // namespace tessa
