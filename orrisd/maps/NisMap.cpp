#include "maps/NisMap.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "maps/SlowMapIterator.h"
#include "store/CacheSnapshot.h"

#include <boost/make_shared.hpp>

#include <unistd.h>

namespace nis {

NisMap::~NisMap() {
    const tessa::Lock lock(m_snapshotProtect);
    if (m_snapshot && !m_deleteOnClose) {
        m_snapshot->preserveOnClose();
    }
}

bool NisMap::attachSnapshot(const boost::shared_ptr<CacheSnapshot>& snapshot) {
    const tessa::Lock lock(m_snapshotProtect);
    const std::string name = getName();
    if (snapshot->getMapName() != name || snapshot->getOrder() != getOrder()) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Map %s rejects snapshot '%s'", name.c_str(),
                  snapshot->getFilename().c_str());
        return false;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Map %s attaches snapshot '%s'", name.c_str(),
              snapshot->getFilename().c_str());
    m_snapshot = snapshot;
    return true;
}

/// A new snapshot of the map, which it keeps. The old one goes first, file and all.
boost::shared_ptr<CacheSnapshot> NisMap::makeSnapshot() {
    m_snapshot.reset();
    m_snapshot = boost::make_shared<CacheSnapshot>(shared_from_this(), getDomain(), getServer());
    m_dropped = false;
    return m_snapshot;
}

void NisMap::updateSnapshot() {
    const tessa::Lock lock(m_snapshotProtect);
    const bool stale = m_snapshot ? m_snapshot->getOrder() != getOrder() : m_dropped;
    if (!stale) {
        return;
    }
    try {
        makeSnapshot();
    } catch (FileSystemError& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "unable to refresh snapshot for map '%s': %s",
                  getName().c_str(), e.msg().c_str());
    }
}

boost::shared_ptr<MapIterator> NisMap::getAll() {
    const tessa::Lock lock(m_snapshotProtect);
    try {
        if (!m_snapshot || m_snapshot->getOrder() != getOrder()) {
            makeSnapshot();
        }
        return CacheSnapshot::getIterator(m_snapshot);
    } catch (FileSystemError& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING,
                  "Failed to create efficient snapshot for map '%s': %s (disk space low?), using "
                  "inefficient iterator",
                  getName().c_str(), e.msg().c_str());
        return boost::make_shared<SlowMapIterator>(shared_from_this());
    }
}

void NisMap::deleteOnClose() {
    m_deleteOnClose = true;
}

bool NisMap::getDeleteOnClose() const {
    return m_deleteOnClose;
}

void NisMap::dropSnapshot() {
    const tessa::Lock lock(m_snapshotProtect);
    if (m_snapshot) {
        ::unlink(m_snapshot->getFilename().c_str());
        m_snapshot.reset();
        m_dropped = true;
    }
}

} // namespace nis
