#include "maps/SlowMapIterator.h"

#include "maps/NisMap.h"

namespace nis {

SlowMapIterator::SlowMapIterator(boost::shared_ptr<NisMap> map) : m_map(std::move(map)) {}

// The lock goes before the map that owns it.
SlowMapIterator::~SlowMapIterator() {
    m_lock.reset();
}

MapIterator& SlowMapIterator::operator++() {
    if (m_atEnd) {
        return *this;
    }
    if (m_current.key.empty()) {
        m_lock = std::make_unique<tessa::ReaderLock>(m_map->getReaderWriterLock());
        m_current = m_map->getFirst();
    } else {
        m_current = m_map->getNext(m_current.key);
    }
    if (m_current.key.empty()) {
        m_atEnd = true;
        m_lock.reset();
    }
    return *this;
}

MapEntry SlowMapIterator::operator*() {
    if (!m_atEnd && m_current.key.empty()) {
        ++*this;
    }
    return m_atEnd ? MapEntry::NOT_FOUND : m_current;
}

std::string SlowMapIterator::getMapName() const {
    return m_map->getName();
}

} // namespace nis
