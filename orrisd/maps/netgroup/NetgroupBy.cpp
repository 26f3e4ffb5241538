#include "maps/netgroup/NetgroupBy.h"

#include "common/NisException.h"
#include "maps/netgroup/ADNetgroupMap.h"

namespace nis {

NetgroupBy::NetgroupBy(const char* name, const NetgroupByInversionTable& table,
                       const GroupInversionTable& parents,
                       boost::shared_ptr<ADNetgroupMap> netgroupMap, std::string domain,
                       std::string server)
    : m_name(name), m_table(table), m_parents(parents), m_netgroupMap(std::move(netgroupMap)),
      m_domain(std::move(domain)), m_server(std::move(server)) {}

tessa::ReaderWriterLock& NetgroupBy::getReaderWriterLock() const {
    return m_netgroupMap->getReaderWriterLock();
}

std::uint32_t NetgroupBy::getOrder() const {
    return m_netgroupMap->getOrder();
}

/// All netgroups that contain one of these, and these, as a value.
std::string NetgroupBy::expandGroups(NetgroupNames names) const {
    m_parents.expand(names);
    std::string value;
    for (const std::string& name : names) {
        if (!value.empty()) {
            value += ',';
        }
        value += name;
    }
    return value;
}

MapEntry NetgroupBy::entryAt(NetgroupByInversionTable::Table::const_iterator place) const {
    if (place == m_table.table().end()) {
        return MapEntry::NOT_FOUND;
    }
    return {place->first, expandGroups(place->second)};
}

std::string NetgroupBy::match(const std::string& key) const {
    const tessa::ReaderLock lock(getReaderWriterLock());
    const auto found = m_table.table().find(key);
    if (found == m_table.table().end()) {
        NIS_THROW(UnknownKey, key);
    }
    return expandGroups(found->second);
}

MapEntry NetgroupBy::getFirst() const {
    const tessa::ReaderLock lock(getReaderWriterLock());
    return entryAt(m_table.table().begin());
}

MapEntry NetgroupBy::getNext(const std::string& key) const {
    const tessa::ReaderLock lock(getReaderWriterLock());
    return entryAt(m_table.table().upper_bound(key));
}

} // namespace nis
