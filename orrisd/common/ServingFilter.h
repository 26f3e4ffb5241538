#pragma once

#include <karst/Mutex.h>

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace nis {

/// Which map names may be served, as the configuration says, and which are made locally and so are
/// never read from the directory. Process-wide; all operations are thread-safe.
class ServingFilter {
public:
    /// False for names in "nisd.exclude.maps"; otherwise true when "nisd.maps" is empty or holds
    /// the name. Case matters. The lists are read on first use after start or reset().
    static bool canServeToClients(const std::string& map);
    /// Whether the name was registered as a derived map.
    static bool neverDownloadMapFromAD(const std::string& map);
    /// Registers a derived map's name (once, however often it is called).
    static void addDerivedMap(const std::string& map);
    /// Makes the next question read the configuration again.
    static void reset();

private:
    using Names = boost::shared_ptr<const std::vector<std::string>>;
    static void readConfiguration() KARST_REQUIRES(m_permittedMapsProtect);

    static tessa::Mutex m_permittedMapsProtect;
    static bool m_permittedMapsInitialized KARST_GUARDED_BY(m_permittedMapsProtect);
    static Names m_permittedMaps KARST_GUARDED_BY(m_permittedMapsProtect);
    static Names m_excludeMaps KARST_GUARDED_BY(m_permittedMapsProtect);
    static tessa::Mutex m_derivedMapsProtect;
    static std::vector<std::string> m_derivedMaps KARST_GUARDED_BY(m_derivedMapsProtect);
};

} // namespace nis
