#pragma once

#include "server/MapSetManager.h"
#include "server/NisServer.h"
#include "server/Subnet.h"

#include <karst/Mutex.h>

#include <boost/shared_ptr.hpp>

#include <ctime>
#include <string>
#include <vector>

namespace nis {

/// The one object through which every request and every update reaches the maps.
///
/// Requests may come on any thread; update() and reconfigure() belong to the main thread.
class ADNisServer : public NisServer, public Reconfigurable {
public:
    /// Builds the secure nets, then finds the caches in the current directory.
    /// @param flush discard the caches
    ADNisServer(const std::string& domain, bool flush);
    ~ADNisServer() override;

    bool isDomainSupported(const char* domain) const override;
    MapEntry match(const char* domain, const char* map, const std::string& key) const override;
    MapEntry getFirst(const char* domain, const char* map) const override;
    MapEntry getNext(const char* domain, const char* map, const std::string& key) const override;
    boost::shared_ptr<MapIterator> getAll(const char* domain, const char* map) const override;
    std::string getMaster(const char* domain, const char* map) const override;
    std::uint32_t getOrder(const char* domain, const char* map) const override;
    MapNames getMapList(const char* domain) const override;

    void reconfigure() override;

    /// @throws whatever the update of the maps throws; what is served stays as it was
    void update(bool rebuild, bool refresh);
    std::time_t getNextUpdateTime(); ///< seconds since the epoch
    std::time_t getLastUpdateTime(); ///< seconds since the epoch, 0: never
    const std::string& getDomain() const { return m_domain; }
    /// Whether a caller may be answered. The address is in network byte order.
    bool allowedSubnet(unsigned int address) const;

private:
    void insureDomainCorrect(const char* domain) const;
    void checkArguments(const char* domain, const char* map) const;
    void initSecureNets();
    void initMapSets(bool flush);

    std::string m_domain;
    mutable tessa::Mutex m_secureNetsProtect;
    boost::shared_ptr<const std::vector<Subnet>> m_secureNets KARST_GUARDED_BY(m_secureNetsProtect);
    MapSetManager m_manager;
};

} // namespace nis
