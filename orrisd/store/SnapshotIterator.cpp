#include "store/SnapshotIterator.h"

#include <cstring>

namespace nis {

MapIterator& CacheSnapshot::SnapshotIterator::operator++() {
    if (!m_atEnd) {
        m_current = m_snapshot->readEntry(m_position, m_window);
        m_skippedTo = NOT_STARTED;
        m_atEnd = m_current.key.empty();
    }
    return *this;
}

MapEntry CacheSnapshot::SnapshotIterator::operator*() {
    if (!m_atEnd && m_skippedTo != NOT_STARTED) {
        m_current = m_snapshot->readEntry(m_skippedTo, m_window);
        m_skippedTo = NOT_STARTED;
    }
    if (!m_atEnd && m_current.key.empty()) {
        ++*this;
    }
    return m_atEnd ? MapEntry::NOT_FOUND : m_current;
}

bool CacheSnapshot::SnapshotIterator::peek(View& entry) noexcept {
    if (m_atEnd || m_position == NOT_STARTED) {
        return false;
    }
    std::uint64_t at = m_position;
    if (!viewString(at, entry.key) || entry.key.empty() || !viewString(at, entry.value)) {
        return false;
    }
    m_peeked = at;
    return true;
}

void CacheSnapshot::SnapshotIterator::skip() noexcept {
    m_skippedTo = m_position;
    m_position = m_peeked;
}

/// The string at the position, which is moved behind it, where the window has all of it.
bool CacheSnapshot::SnapshotIterator::viewString(std::uint64_t& at,
                                                 std::string_view& text) const noexcept {
    std::uint16_t length = 0;
    const std::uint64_t end = m_window.start + m_window.length;
    if (at < m_window.start || at + sizeof length > end) {
        return false;
    }
    const char* const bytes = m_window.bytes.data() + (at - m_window.start);
    std::memcpy(&length, bytes, sizeof length);
    if (at + sizeof length + length > end) {
        return false;
    }
    text = {bytes + sizeof length, length};
    at += sizeof length + length;
    return true;
}

} // namespace nis
