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

void ReaderWriterLock::incrReaderCount() {
    m_readers.push_back(std::this_thread::get_id());
}

/// Removes the first entry of the calling thread. False when it has none.
bool ReaderWriterLock::decrReaderCount() {
    const auto mine = std::find(m_readers.begin(), m_readers.end(), std::this_thread::get_id());
    if (mine == m_readers.end()) {
        return false;
    }
    m_readers.erase(mine);
    return true;
}

/// Lets in all readers that wait, as one batch: those that come later may have to wait again.
void ReaderWriterLock::admitReaders() {
    m_writersFirst = false;
    if (m_waitingReaders > 0) {
        m_admittedReaders += m_waitingReaders;
        m_waitingReaders = 0;
        ++m_batch;
        m_readersGo.notify_all();
    }
}

void ReaderWriterLock::lockRead() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_writerDepth > 0 || m_writersFirst) {
        const auto self = std::this_thread::get_id();
        // Whoever is inside already must not wait for a writer that waits for it.
        if (!isWriter(self) && !isReader(self)) {
            const unsigned long batch = m_batch;
            ++m_waitingReaders;
            m_readersGo.wait(lock, [&] { return m_batch != batch; });
            --m_admittedReaders;
        }
    }
    incrReaderCount();
}

void ReaderWriterLock::unlockRead() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!decrReaderCount()) {
        throw std::logic_error("the thread does not hold the read side");
    }
    if (m_writerAtDoor && m_readers.empty() && m_admittedReaders == 0) {
        m_writersFirst = true; // nobody slips in before the writer is awake
        m_writersGo.notify_all();
    }
}

/// The writer whose turn it is waits until it is alone.
void ReaderWriterLock::waitForReaders(std::unique_lock<std::mutex>& lock) {
    const auto alone = [this] { return m_readers.empty() && m_admittedReaders == 0; };
    m_writerAtDoor = true;
    while (!alone()) {
        m_writersFirst = true;
        if (m_writersGo.wait_for(lock, WRITERS_TURN, alone)) {
            break;
        }
        admitReaders();
        m_writersGo.wait_for(lock, READERS_TURN, alone);
    }
    m_writerAtDoor = false;
    m_writersFirst = false;
}

void ReaderWriterLock::lockWrite() {
    const auto self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(m_mutex);
    if (isWriter(self)) {
        ++m_writerDepth;
        return;
    }
    if (isReader(self)) {
        throw std::logic_error("a thread that holds the read side cannot take the write side");
    }
    const unsigned long ticket = m_nextTicket++;
    m_writersGo.wait(lock, [&] { return m_served == ticket; });
    waitForReaders(lock);
    m_writer = self;
    m_writerDepth = 1;
}

void ReaderWriterLock::unlockWrite() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!isWriter(std::this_thread::get_id())) {
        throw std::logic_error("the thread does not hold the write side");
    }
    if (--m_writerDepth == 0) {
        m_writer = std::thread::id();
        ++m_served;
        admitReaders();
        m_writersGo.notify_all();
    }
}

bool ReaderWriterLock::holdsReaderLock() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return isReader(std::this_thread::get_id());
}

bool ReaderWriterLock::holdsWriterLock() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return isWriter(std::this_thread::get_id());
}

int ReaderWriterLock::readerCount() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_readers.size());
}

} // namespace tessa
