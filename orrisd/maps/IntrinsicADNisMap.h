#pragma once

#include "maps/ADNisMap.h"
#include "maps/DataHorde.h"

#include <karst/Mutex.h>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <list>
#include <string>
#include <vector>

namespace nis {

/// A map computed from the directory's users or groups. Each refresh reads all of them; the cache
/// is replaced as a whole, and the order moves, only when something changed. Clients keep reading
/// the old cache until the new one is complete.
///
/// Layers of the cache: 0 name -> line, 1 numeric id -> line, 2 the checksum of the data, 3 a
/// second one that sees what the first does not.
class IntrinsicADNisMap : public ADNisMap {
public:
    using DataHorde = nis::DataHorde;
    static constexpr unsigned char NAME_LAYER = 0;
    static constexpr unsigned char ID_LAYER = 1;
    static constexpr unsigned char CHECKSUM_LAYER = 2;
    static constexpr const char* CHECKSUM_KEY = "checksum";
    static constexpr unsigned char DIGEST_LAYER = 3;
    static constexpr const char* DIGEST_KEY = "digest";

    /// @param byName,byId names of the derived maps; they are registered as such
    IntrinsicADNisMap(boost::shared_ptr<NisCache> cache, std::string byName, std::string byId);

    std::list<boost::shared_ptr<NisMap>> getDerivedMaps() override;
    bool neverDownloadMapFromAD(const std::string& name) const override;
    /// Clients reach the map through its derived maps.
    bool canServeToClients() const override { return false; }
    const char* type_name() const override { return "IntrinsicADNisMap"; }

    /// @throws UnknownKey
    virtual std::string matchByID(const std::string& id) const;
    virtual MapEntry getFirstByID() const;
    virtual MapEntry getNextByID(const std::string& id) const;

    /// Base names of all intrinsic maps.
    static std::vector<std::string> getIntrinsicNames();

protected:
    boost::shared_ptr<DataHorde> startHorde() const;
    /// Puts the collected records into service if they differ from what is served.
    void dataHordeComplete(DataHorde& horde);

private:
    bool keepInsteadOf(const DataHorde& horde) const;
    bool isUnchanged(DataHorde& horde) const;
    void putIntoService(const boost::shared_ptr<NisCache>& fresh);
    std::vector<boost::shared_ptr<NisMap>> servedMaps();

    const std::string m_byName;
    const std::string m_byId;
    tessa::Mutex m_derivedProtect;
    std::list<boost::weak_ptr<NisMap>> m_derived KARST_GUARDED_BY(m_derivedProtect);
};

} // namespace nis
