#include "store/SnapshotIterator.h"

namespace nis {

MapIterator& CacheSnapshot::SnapshotIterator::operator++() {
    if (!m_atEnd) {
        m_current = m_snapshot->readEntry(m_position, m_window);
        m_atEnd = m_current.key.empty();
    }
    return *this;
}

MapEntry CacheSnapshot::SnapshotIterator::operator*() {
    if (!m_atEnd && m_current.key.empty()) {
        ++*this;
    }
    return m_atEnd ? MapEntry::NOT_FOUND : m_current;
}

} // namespace nis
