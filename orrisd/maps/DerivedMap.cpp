#include "maps/DerivedMap.h"

#include "maps/ADNisMap.h"

namespace nis {

DerivedMap::DerivedMap(std::string name, boost::shared_ptr<ADNisMap> parent, unsigned char layer)
    : m_name(std::move(name)), m_parent(std::move(parent)), m_layer(layer) {}

tessa::ReaderWriterLock& DerivedMap::getReaderWriterLock() const {
    return m_parent->getReaderWriterLock();
}

std::string DerivedMap::match(const std::string& key) const {
    return m_parent->cacheGet(key, m_layer).value;
}

MapEntry DerivedMap::getFirst() const {
    return m_parent->cacheGetFirst(m_layer);
}

MapEntry DerivedMap::getNext(const std::string& key) const {
    return m_parent->cacheGetNext(key, m_layer);
}

std::uint32_t DerivedMap::getOrder() const {
    return m_parent->getOrder();
}

std::string DerivedMap::getDomain() const {
    return m_parent->getDomain();
}

std::string DerivedMap::getServer() const {
    return m_parent->getServer();
}

} // namespace nis
