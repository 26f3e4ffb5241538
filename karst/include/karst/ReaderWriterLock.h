#pragma once

#include "karst/ThreadAnnotations.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace tessa {

/// Many readers or one writer, with a record of which threads hold which side.
///
/// A thread that holds either side may take the read side again; the writer may take the write side
/// again. Taking the write side while holding only the read side is a programming error (it would
/// wait for itself) and raises std::logic_error.
/// Fairness: a waiting writer keeps new readers out for a short bounded time, so that steady
/// look-ups cannot starve an update; when the readers it waits for do not leave in that time (a
/// slow whole-map transfer), new readers are let in again, so that one slow reader never stops the
/// others. Writers enter in the order of their asking, and readers that waited when a writer leaves
/// go in before the next one, so that writers cannot starve readers either.
///
/// A side is released by the thread that took it; releasing one that the calling thread does not
/// hold raises std::logic_error. All operations are thread-safe.
class KARST_CAPABILITY("shared_mutex") ReaderWriterLock {
public:
    ReaderWriterLock() = default;
    ReaderWriterLock(const ReaderWriterLock&) = delete;
    ReaderWriterLock& operator=(const ReaderWriterLock&) = delete;

    void lockRead() KARST_ACQUIRE_SHARED();
    void unlockRead() KARST_RELEASE_SHARED();
    void lockWrite() KARST_ACQUIRE();
    void unlockWrite() KARST_RELEASE();

    /// Whether the calling thread holds the side.
    bool holdsReaderLock() const;
    bool holdsWriterLock() const;
    /// Readers at this moment, counting a thread once for each time it took the side.
    int readerCount() const;

private:
    void incrReaderCount();
    bool decrReaderCount();
    bool isReader(std::thread::id id) const;
    bool isWriter(std::thread::id id) const { return m_writerDepth > 0 && m_writer == id; }
    void admitReaders();
    void waitForReaders(std::unique_lock<std::mutex>& lock);

    // All guarded by m_mutex, which is never held for longer than a few instructions.
    mutable std::mutex m_mutex;
    std::condition_variable m_readersGo;
    std::condition_variable m_writersGo;
    std::vector<std::thread::id> m_readers; ///< one entry for each read side held
    std::thread::id m_writer;
    int m_writerDepth = 0;
    unsigned long m_nextTicket = 0; ///< of the next writer that asks
    unsigned long m_served = 0;     ///< ticket of the writer whose turn it is, until it has left
    bool m_writerAtDoor = false;    ///< that writer waits for the readers to leave
    bool m_writersFirst = false;    ///< new readers wait: a writer's bounded turn to get in
    unsigned long m_batch = 0;      ///< counts the admissions of waiting readers
    int m_waitingReaders = 0;       ///< not admitted yet
    int m_admittedReaders = 0;      ///< admitted, not awake yet; no writer enters before them
};

/// Scoped holder of the read side.
class KARST_SCOPED_CAPABILITY ReaderLock {
public:
    explicit ReaderLock(ReaderWriterLock& lock) KARST_ACQUIRE_SHARED(lock) : m_lock(lock) {
        m_lock.lockRead();
    }
    ~ReaderLock() KARST_RELEASE_GENERIC() { m_lock.unlockRead(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

private:
    ReaderWriterLock& m_lock;
};

/// Scoped holder of the write side.
class KARST_SCOPED_CAPABILITY WriterLock {
public:
    explicit WriterLock(ReaderWriterLock& lock) KARST_ACQUIRE(lock) : m_lock(lock) {
        m_lock.lockWrite();
    }
    ~WriterLock() KARST_RELEASE() { m_lock.unlockWrite(); }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

private:
    ReaderWriterLock& m_lock;
};

} // namespace tessa
