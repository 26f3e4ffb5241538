#pragma once

#include "common/MapIterator.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace nis {

using MapNames = boost::shared_ptr<const std::vector<std::string>>;

/// A server of one or more NIS domains: the requests of the protocol with their raw arguments.
/// Thread-safe. A null argument is ZeroPointer, a foreign domain WrongDomain, an unknown map
/// UnknownMap, an unknown key UnknownKey.
class NisServer {
public:
    virtual ~NisServer() = default;
    virtual bool isDomainSupported(const char* domain) const = 0;
    virtual MapEntry match(const char* domain, const char* map, const std::string& key) const = 0;
    virtual MapEntry getFirst(const char* domain, const char* map) const = 0;
    virtual MapEntry getNext(const char* domain, const char* map, const std::string& key) const = 0;
    virtual boost::shared_ptr<MapIterator> getAll(const char* domain, const char* map) const = 0;
    virtual std::string getMaster(const char* domain, const char* map) const = 0;
    virtual std::uint32_t getOrder(const char* domain, const char* map) const = 0;
    virtual MapNames getMapList(const char* domain) const = 0;
};

/// The same requests once the domain is settled.
class DomainNisServer {
public:
    virtual ~DomainNisServer() = default;
    virtual MapEntry match(const std::string& map, const std::string& key) const = 0;
    virtual MapEntry getFirst(const std::string& map) const = 0;
    virtual MapEntry getNext(const std::string& map, const std::string& key) const = 0;
    virtual boost::shared_ptr<MapIterator> getAll(const std::string& map) const = 0;
    virtual bool doesMapExist(const std::string& map) const = 0;
    virtual std::uint32_t getOrder(const std::string& map) const = 0;
    virtual MapNames getMapList() const = 0;
};

/// Whatever reads the configuration again on SIGHUP.
class Reconfigurable {
public:
    virtual ~Reconfigurable() = default;
    virtual void reconfigure() = 0;
};

} // namespace nis
