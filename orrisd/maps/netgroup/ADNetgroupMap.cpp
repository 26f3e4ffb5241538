#include "maps/netgroup/ADNetgroupMap.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "common/ServingFilter.h"
#include "maps/netgroup/MemberParser.h"
#include "maps/netgroup/NetgroupBy.h"
#include "store/NisCache.h"

#include <boost/make_shared.hpp>

namespace nis {

namespace {

const boost::shared_ptr<tessa::Logger>& netgroupLogger() {
    static const auto log = tessa::Logger::get(ORRISD_NETGROUP_LOG_NAME);
    return log;
}

} // namespace

ADNetgroupMap::ADNetgroupMap(boost::shared_ptr<NisCache> cache)
    : ExplicitADNisMap(std::move(cache)) {
    ServingFilter::addDerivedMap(NETGROUP_BY_HOST_MAP_NAME);
    ServingFilter::addDerivedMap(NETGROUP_BY_USER_MAP_NAME);
    readTables();
}

std::list<boost::shared_ptr<NisMap>> ADNetgroupMap::getDerivedMaps() {
    std::list<boost::shared_ptr<NisMap>> maps;
    const auto self = boost::static_pointer_cast<ADNetgroupMap>(shared_from_this());
    if (ServingFilter::canServeToClients(NETGROUP_BY_HOST_MAP_NAME)) {
        maps.push_back(boost::make_shared<NetgroupBy>(NETGROUP_BY_HOST_MAP_NAME, m_byHost,
                                                      m_parents, self, getDomain(), getServer()));
    }
    if (ServingFilter::canServeToClients(NETGROUP_BY_USER_MAP_NAME)) {
        maps.push_back(boost::make_shared<NetgroupBy>(NETGROUP_BY_USER_MAP_NAME, m_byUser,
                                                      m_parents, self, getDomain(), getServer()));
    }
    return maps;
}

void ADNetgroupMap::derivedMapRemoved(const std::string& name) {
    // The tables stay: the map may be allowed again, and then they must be complete.
    if (name == NETGROUP_BY_HOST_MAP_NAME || name == NETGROUP_BY_USER_MAP_NAME) {
        KARST_LOG(netgroupLogger(), tessa::LOG_DEBUGGING, "Map '%s' is no longer served",
                  name.c_str());
    }
}

bool ADNetgroupMap::neverDownloadMapFromAD(const std::string& name) const {
    return name == NETGROUP_BY_HOST_MAP_NAME || name == NETGROUP_BY_USER_MAP_NAME;
}

bool ADNetgroupMap::mustCacheThisMap(const std::string& name) const {
    return name == NETGROUP_MAP_NAME &&
           (ServingFilter::canServeToClients(NETGROUP_BY_HOST_MAP_NAME) ||
            ServingFilter::canServeToClients(NETGROUP_BY_USER_MAP_NAME) ||
            ServingFilter::canServeToClients(NETGROUP_MAP_NAME));
}

void ADNetgroupMap::cachePut(const std::string& key, const std::string& value,
                             unsigned char layer) {
    if (layer != 0 || key.empty()) {
        ADNisMap::cachePut(key, value, layer); // refuses an empty key
        return;
    }
    // An entry that is overwritten takes what it put into the tables along.
    const MapEntry previous = cache()->get(key, layer);
    if (!previous.key.empty()) {
        derivedRemove(key, previous.value);
    }
    derivedPut(key, value);
    ADNisMap::cachePut(key, value, layer);
}

void ADNetgroupMap::cacheRemove(const std::string& key, unsigned char layer) {
    if (layer == 0) {
        try {
            derivedRemove(key, cacheGet(key, layer).value);
        } catch (const UnknownKey&) {
            KARST_LOG(netgroupLogger(), tessa::LOG_DEBUGGING,
                      "Received UnknownKey while removing deleted entry '%s'", key.c_str());
        }
    }
    ADNisMap::cacheRemove(key, layer);
}

void ADNetgroupMap::derivedPut(const std::string& netgroupName, const std::string& value) {
    enter(netgroupName, value, true);
}

void ADNetgroupMap::enter(const std::string& netgroupName, const std::string& value, bool report) {
    std::list<NetgroupEntry> members;
    ParseNetgroupMembers(value, members, report, netgroupName);
    const char* name = netgroupName.c_str();
    for (const NetgroupEntry& member : members) {
        if (member.kind == NetgroupEntry::GROUP) {
            KARST_LOG(netgroupLogger(), tessa::LOG_TRACE, "Add to group parents: %s -> %s",
                      member.group.c_str(), name);
            m_parents.put(member.group, netgroupName);
            continue;
        }
        KARST_LOG(netgroupLogger(), tessa::LOG_TRACE, "Add to byHost: (%s,%s) -> %s",
                  member.host.c_str(), member.domain.c_str(), name);
        m_byHost.put(netgroupName, member.host, member.domain);
        KARST_LOG(netgroupLogger(), tessa::LOG_TRACE, "Add to byUser: (%s,%s) -> %s",
                  member.user.c_str(), member.domain.c_str(), name);
        m_byUser.put(netgroupName, member.user, member.domain);
    }
}

void ADNetgroupMap::derivedRemove(const std::string& netgroupName, const std::string& value) {
    std::list<NetgroupEntry> members;
    ParseNetgroupMembers(value, members, false, netgroupName);
    const char* name = netgroupName.c_str();
    for (const NetgroupEntry& member : members) {
        if (member.kind == NetgroupEntry::GROUP) {
            KARST_LOG(netgroupLogger(), tessa::LOG_TRACE, "Remove from group parents: %s -> %s",
                      member.group.c_str(), name);
            m_parents.remove(member.group, netgroupName);
            continue;
        }
        KARST_LOG(netgroupLogger(), tessa::LOG_TRACE, "Remove from byHost: (%s,%s) -> %s",
                  member.host.c_str(), member.domain.c_str(), name);
        m_byHost.remove(netgroupName, member.host, member.domain);
        KARST_LOG(netgroupLogger(), tessa::LOG_TRACE, "Remove from byUser: (%s,%s) -> %s",
                  member.user.c_str(), member.domain.c_str(), name);
        m_byUser.remove(netgroupName, member.user, member.domain);
    }
}

void ADNetgroupMap::readTables() {
    m_byHost.clear();
    m_byUser.clear();
    m_parents.clear();
    const auto held = cache();
    for (MapEntry entry = held->getFirst(0); !entry.key.empty();
         entry = held->getNext(entry.key, 0)) {
        enter(entry.key, entry.value, false); // was reported when the entry was read
    }
}

void ADNetgroupMap::cacheReverted() {
    const tessa::WriterLock lock(getReaderWriterLock());
    readTables();
}

} // namespace nis
