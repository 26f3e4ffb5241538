#pragma once

#include "server/MapSet.h"

namespace nis {

/// The maps that the daemon makes itself of the directory's users and groups. They belong to no one
/// directory server, so there is one such set, which is always asked first.
class GlobalMapSet : public MapSet {
public:
    static constexpr const char* GLOBAL_NAME = ".GLOBAL";

    explicit GlobalMapSet(const std::string& domain);
    ~GlobalMapSet() override;

    /// @return a null pointer for a cache that is of no intrinsic map
    boost::shared_ptr<ADNisMap>
    makeADNisMap(const boost::shared_ptr<NisCache>& cache) const override;
    void update(bool rebuild, bool refresh) override;

protected:
    boost::shared_ptr<ADNisMap> makeADNisMap(const std::string& name, const std::string& dn,
                                             const std::string& zone) const override;
};

} // namespace nis
