#include "maps/WellKnownMaps.h"

#include "maps/RecordRules.h"

#include <boost/make_shared.hpp>

namespace nis {

namespace {

ExplicitADNisMap::KeyList list(rules::Keys keys) {
    return boost::make_shared<rules::Keys>(std::move(keys));
}

} // namespace

ExplicitADNisMap::KeyList ADHostsMap::nth_key(const std::string& /*key*/, std::string& value,
                                              unsigned n) const {
    return list(rules::hosts(value, n));
}

ExplicitADNisMap::KeyList ADServicesMap::nth_key(const std::string& key, std::string& value,
                                                 unsigned n) const {
    return list(rules::services(key, value, n));
}

ExplicitADNisMap::KeyList ADEthersMap::nth_key(const std::string& key, std::string& value,
                                               unsigned n) const {
    return list(rules::ethers(key, value, n));
}

ExplicitADNisMap::KeyList ADNetmasksMap::nth_key(const std::string& key, std::string& value,
                                                 unsigned /*n*/) const {
    return list(rules::netmasks(key, value));
}

ExplicitADNisMap::KeyList ADTimezoneMap::nth_key(const std::string& /*key*/, std::string& value,
                                                 unsigned /*n*/) const {
    return list(rules::timezone(value));
}

ExplicitADNisMap::KeyList ADPublickeyMap::nth_key(const std::string& key, std::string& /*value*/,
                                                  unsigned /*n*/) const {
    return list({key});
}

ExplicitADNisMap::KeyList ADAliasesMap::nth_key(const std::string& key, std::string& value,
                                                unsigned n) const {
    return list(rules::aliases(key, value, n));
}

} // namespace nis
