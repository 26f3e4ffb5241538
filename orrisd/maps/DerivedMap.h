#pragma once

#include "maps/NisMap.h"

namespace nis {

class ADNisMap;

/// Client-visible map that serves one layer of its parent's cache, with snapshots of its own. Made
/// by the parent's getDerivedMaps(). Shares the parent's lock, but takes it for no look-up: each is
/// one step of the parent's cache.
class DerivedMap : public NisMap {
public:
    DerivedMap(std::string name, boost::shared_ptr<ADNisMap> parent, unsigned char layer);

    std::string getName() const override { return m_name; }
    tessa::ReaderWriterLock& getReaderWriterLock() const override;
    std::string match(const std::string& key) const override;
    MapEntry getFirst() const override;
    MapEntry getNext(const std::string& key) const override;
    std::uint32_t getOrder() const override;
    std::string getDomain() const override;
    std::string getServer() const override;

    unsigned char layer() const { return m_layer; }
    ADNisMap& parent() const { return *m_parent; }

private:
    std::string m_name;
    boost::shared_ptr<ADNisMap> m_parent;
    unsigned char m_layer;
};

} // namespace nis
