#pragma once

#include "common/MapIterator.h"

#include <karst/ReaderWriterLock.h>

#include <boost/shared_ptr.hpp>

#include <memory>

namespace nis {

class NisMap;

/// Cursor over the live map, for when no snapshot can be made. Holds the map's read side from its
/// first advance to the end (or its destruction), so it must stay on one thread and updates of the
/// map wait for it.
class SlowMapIterator : public MapIterator {
public:
    explicit SlowMapIterator(boost::shared_ptr<NisMap> map);
    ~SlowMapIterator() override;
    /// @throws what the map's look-ups throw
    MapIterator& operator++() override;
    MapEntry operator*() override;
    std::string getMapName() const override;

private:
    boost::shared_ptr<NisMap> m_map;
    bool m_atEnd = false;
    std::unique_ptr<tessa::ReaderLock> m_lock;
    MapEntry m_current;
};

} // namespace nis
