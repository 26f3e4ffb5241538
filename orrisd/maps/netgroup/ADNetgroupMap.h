#pragma once

#include "maps/ExplicitADNisMap.h"
#include "maps/netgroup/InversionTables.h"

#include <string>

namespace nis {

/// The netgroup map, which also keeps the tables for netgroup.byhost and netgroup.byuser: netgroups
/// by (host, domain), by (user, domain), and parents by member netgroup. The tables follow the
/// entries of layer 0 exactly; they change under the map's writer lock.
class ADNetgroupMap : public ExplicitADNisMap {
public:
    static constexpr const char* NETGROUP_MAP_NAME = "netgroup";
    static constexpr const char* NETGROUP_BY_HOST_MAP_NAME = "netgroup.byhost";
    static constexpr const char* NETGROUP_BY_USER_MAP_NAME = "netgroup.byuser";

    /// Makes the tables from what the cache holds.
    explicit ADNetgroupMap(boost::shared_ptr<NisCache> cache);

    std::list<boost::shared_ptr<NisMap>> getDerivedMaps() override;
    void derivedMapRemoved(const std::string& name) override;
    bool mustCacheThisMap(const std::string& name) const override;
    bool neverDownloadMapFromAD(const std::string& name) const override;
    const char* type_name() const override { return "ADNetgroupMap"; }
    void cachePut(const std::string& key, const std::string& value, unsigned char layer) override;
    void cacheRemove(const std::string& key, unsigned char layer) override;

    /// Enters what a netgroup's value names into the tables. The caller holds the writer lock.
    virtual void derivedPut(const std::string& netgroupName, const std::string& value);
    /// Takes exactly that out again.
    virtual void derivedRemove(const std::string& netgroupName, const std::string& value);

protected:
    void cacheReverted() override;

private:
    void readTables();
    void enter(const std::string& netgroupName, const std::string& value, bool report);

    NetgroupByInversionTable m_byHost;
    NetgroupByInversionTable m_byUser;
    GroupInversionTable m_parents;
};

} // namespace nis
