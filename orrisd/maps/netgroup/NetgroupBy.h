#pragma once

#include "maps/NisMap.h"
#include "maps/netgroup/InversionTables.h"

#include <string>

namespace nis {

class ADNetgroupMap;

/// netgroup.byhost or netgroup.byuser: for a host (or user) in a domain the netgroups that contain
/// it, directly or through nested ones. Reads the netgroup map's tables under that map's lock.
class NetgroupBy : public NisMap {
public:
    NetgroupBy(const char* name, const NetgroupByInversionTable& table,
               const GroupInversionTable& parents, boost::shared_ptr<ADNetgroupMap> netgroupMap,
               std::string domain, std::string server);

    std::string getName() const override { return m_name; }
    tessa::ReaderWriterLock& getReaderWriterLock() const override;
    std::string match(const std::string& key) const override;
    MapEntry getFirst() const override;
    MapEntry getNext(const std::string& key) const override;
    std::uint32_t getOrder() const override;
    std::string getDomain() const override { return m_domain; }
    std::string getServer() const override { return m_server; }

    ADNetgroupMap& netgroupMap() const { return *m_netgroupMap; }

private:
    std::string expandGroups(NetgroupNames names) const;
    MapEntry entryAt(NetgroupByInversionTable::Table::const_iterator place) const;

    const char* m_name;
    const NetgroupByInversionTable& m_table;
    const GroupInversionTable& m_parents;
    boost::shared_ptr<ADNetgroupMap> m_netgroupMap;
    std::string m_domain;
    std::string m_server;
};

} // namespace nis
