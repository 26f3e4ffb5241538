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
/// others. All operations are thread-safe.
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
    void decrReaderCount();
    bool isReader(std::thread::id id) const;
    bool mayRead() const;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::thread::id> m_readers; ///< one entry for each read side held
    std::thread::id m_writer;
    int m_writerDepth = 0;
    int m_waitingWriters = 0;
    bool m_writersFirst = false; ///< new readers wait: a writer's bounded turn to get in
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
