#include "server/ADNisServer.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "common/NisException.h"
#include "maps/Directory.h"

#include <karst/DBStore.h>
#include <karst/Exceptions.h>
#include <karst/Interfaces.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <stdexcept>

#include <unistd.h>

namespace nis {

namespace {

constexpr const char* DOMAIN_IS_ZERO_MSG = "domain argument is zero";
constexpr const char* MAP_IS_ZERO_MSG = "map argument is zero";
constexpr std::size_t LONGEST_HOST_NAME = 64;

} // namespace

ADNisServer::ADNisServer(const std::string& domain, bool flush)
    : m_domain(domain), m_manager(domain) {
    initSecureNets();
    initMapSets(flush);
}

ADNisServer::~ADNisServer() {
    tessa::DBStoreInterface::closeAll();
}

bool ADNisServer::isDomainSupported(const char* domain) const {
    if (domain == nullptr) {
        NIS_THROW(ZeroPointer, DOMAIN_IS_ZERO_MSG);
    }
    return domain == m_domain;
}

void ADNisServer::insureDomainCorrect(const char* domain) const {
    if (domain != m_domain) {
        NIS_THROW(WrongDomain, domain);
    }
}

void ADNisServer::checkArguments(const char* domain, const char* map) const {
    if (domain == nullptr) {
        NIS_THROW(ZeroPointer, DOMAIN_IS_ZERO_MSG);
    }
    if (map == nullptr) {
        NIS_THROW(ZeroPointer, MAP_IS_ZERO_MSG);
    }
    insureDomainCorrect(domain);
}

MapEntry ADNisServer::match(const char* domain, const char* map, const std::string& key) const {
    checkArguments(domain, map);
    return m_manager.match(map, key);
}

MapEntry ADNisServer::getFirst(const char* domain, const char* map) const {
    checkArguments(domain, map);
    return m_manager.getFirst(map);
}

MapEntry ADNisServer::getNext(const char* domain, const char* map, const std::string& key) const {
    checkArguments(domain, map);
    return m_manager.getNext(map, key);
}

boost::shared_ptr<MapIterator> ADNisServer::getAll(const char* domain, const char* map) const {
    checkArguments(domain, map);
    return m_manager.getAll(map);
}

std::uint32_t ADNisServer::getOrder(const char* domain, const char* map) const {
    checkArguments(domain, map);
    return m_manager.getOrder(map);
}

std::string ADNisServer::getMaster(const char* domain, const char* map) const {
    checkArguments(domain, map);
    if (!m_manager.doesMapExist(map)) {
        NIS_THROW(UnknownMap, map);
    }
    std::array<char, LONGEST_HOST_NAME + 1> name{};
    if (gethostname(name.data(), LONGEST_HOST_NAME) != 0) {
        return "";
    }
    return name.data();
}

MapNames ADNisServer::getMapList(const char* domain) const {
    if (domain == nullptr) {
        NIS_THROW(ZeroPointer, DOMAIN_IS_ZERO_MSG);
    }
    insureDomainCorrect(domain);
    return m_manager.getMapList();
}

void ADNisServer::update(bool rebuild, bool refresh) {
    directory()->updateZoneHierarchy();
    m_manager.update(rebuild, refresh);
}

void ADNisServer::reconfigure() {
    initSecureNets();
    m_manager.reconfigure();
}

std::time_t ADNisServer::getNextUpdateTime() {
    return m_manager.getNextUpdateTime();
}

std::time_t ADNisServer::getLastUpdateTime() {
    return m_manager.getLastUpdateTime();
}

bool ADNisServer::allowedSubnet(unsigned int address) const {
    boost::shared_ptr<const std::vector<Subnet>> nets;
    {
        const tessa::Lock lock(m_secureNetsProtect);
        nets = m_secureNets;
    }
    return std::any_of(nets->begin(), nets->end(),
                       [address](const Subnet& net) { return net.isMember(address); });
}

namespace {

/// Loopback and the machine's own addresses. What was added before a failure stays.
void addOwnAddresses(std::vector<Subnet>& nets) {
    const auto failed = [](const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_FAILURE,
                  "initSecureNets bad subnet format returned from GetIpAddresses: %s", e.what());
    };
    try {
        nets.emplace_back(Subnet::MakeAddr("127.0.0.0"), Subnet::MakeAddr("255.0.0.0"));
        for (const unsigned int address : tessa::GetIpAddresses()) {
            nets.emplace_back(address, Subnet::MakeAddr("255.255.255.255"));
        }
    } catch (const std::invalid_argument& e) {
        failed(e);
    } catch (const tessa::TESSAException& e) {
        failed(e);
    }
}

} // namespace

void ADNisServer::initSecureNets() {
    std::vector<Subnet> nets;
    addOwnAddresses(nets);
    const auto config = getConfig();
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "initSecureNets: %s=%s", PROP_TRUSTED_NETS,
              config->get(PROP_TRUSTED_NETS).c_str());
    for (const std::string& value : config->getList(PROP_TRUSTED_NETS)) {
        try {
            nets.emplace_back(value);
        } catch (const std::invalid_argument& e) {
            KARST_LOG(logger, tessa::LOG_WARN, "invalid securenet format %s: %s", value.c_str(),
                      e.what());
        }
    }
    for (const Subnet& net : nets) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Allowed subnet %s", net.toString().c_str());
    }
    boost::shared_ptr<const std::vector<Subnet>> list =
        boost::make_shared<const std::vector<Subnet>>(std::move(nets));
    const tessa::Lock lock(m_secureNetsProtect);
    m_secureNets.swap(list);
}

} // namespace nis
