#pragma once

#include "maps/ExplicitADNisMap.h"

namespace nis {

// The classic maps: each is stored once and looked up by several keys. A kind is its derived maps'
// names, in the order of their index, and the rule that cuts their keys out of a record.

class ADHostsMap : public ExplicitADNisMap {
public:
    explicit ADHostsMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"hosts.byname", "hosts.byaddr"}) {}
    const char* type_name() const override { return "ADHostsMap"; }
    KeyList nth_key(const std::string& key, std::string& value, unsigned n) const override;
};

class ADServicesMap : public ExplicitADNisMap {
public:
    explicit ADServicesMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"services.byname", "services.byservicename"}) {}
    const char* type_name() const override { return "ADServicesMap"; }
    KeyList nth_key(const std::string& key, std::string& value, unsigned n) const override;
};

class ADEthersMap : public ExplicitADNisMap {
public:
    explicit ADEthersMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"ethers.byname", "ethers.byaddr"}) {}
    const char* type_name() const override { return "ADEthersMap"; }
    KeyList nth_key(const std::string& key, std::string& value, unsigned n) const override;
};

class ADNetworksMap : public ExplicitADNisMap {
public:
    explicit ADNetworksMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"networks.byaddr", "networks.byname"}) {}
    const char* type_name() const override { return "ADNetworksMap"; }
};

class ADProtocolsMap : public ExplicitADNisMap {
public:
    explicit ADProtocolsMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"protocols.bynumber", "protocols.byname"}) {}
    const char* type_name() const override { return "ADProtocolsMap"; }
};

class ADRpcMap : public ExplicitADNisMap {
public:
    explicit ADRpcMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"rpc.bynumber", "rpc.byname"}) {}
    const char* type_name() const override { return "ADRpcMap"; }
};

class ADNetmasksMap : public ExplicitADNisMap {
public:
    explicit ADNetmasksMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"netmasks.byaddr"}) {}
    const char* type_name() const override { return "ADNetmasksMap"; }
    KeyList nth_key(const std::string& key, std::string& value, unsigned n) const override;
};

class ADTimezoneMap : public ExplicitADNisMap {
public:
    explicit ADTimezoneMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"timezone.byname"}) {}
    const char* type_name() const override { return "ADTimezoneMap"; }
    KeyList nth_key(const std::string& key, std::string& value, unsigned n) const override;
};

class ADPublickeyMap : public ExplicitADNisMap {
public:
    explicit ADPublickeyMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"publickey.byname"}) {}
    const char* type_name() const override { return "ADPublickeyMap"; }
    KeyList nth_key(const std::string& key, std::string& value, unsigned n) const override;
};

class ADAliasesMap : public ExplicitADNisMap {
public:
    explicit ADAliasesMap(boost::shared_ptr<NisCache> cache)
        : ExplicitADNisMap(std::move(cache), {"aliases.default", "mail.aliases", "mail.byaddr"}) {}
    const char* type_name() const override { return "ADAliasesMap"; }
    KeyList nth_key(const std::string& key, std::string& value, unsigned n) const override;
};

} // namespace nis
