#pragma once

#include "maps/ADNisMap.h"

#include <boost/shared_ptr.hpp>

#include <string>

namespace nis {

class NisCache;

/// The map of the kind that the cache's map name says; any name that is of no known kind is a plain
/// map stored in the directory.
boost::shared_ptr<ADNisMap> makeDirectoryMap(const boost::shared_ptr<NisCache>& cache);

/// The map computed from users or groups that the cache's map name says; empty for other names.
boost::shared_ptr<ADNisMap> makeIntrinsicMap(const boost::shared_ptr<NisCache>& cache);

/// Whether the name is that of a classic map which is served as several derived maps.
bool isWellKnownMapName(const std::string& name);

/// The directory-backed map that stands behind a served one: itself, or what it is derived from.
/// Null for a map of another kind. Valid as long as the map.
ADNisMap* backingMap(NisMap& map);

} // namespace nis
