#include "common/ServingFilter.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"

#include <algorithm>

namespace nis {

tessa::Mutex ServingFilter::m_permittedMapsProtect;
bool ServingFilter::m_permittedMapsInitialized = false;
ServingFilter::Names ServingFilter::m_permittedMaps;
ServingFilter::Names ServingFilter::m_excludeMaps;
tessa::Mutex ServingFilter::m_derivedMapsProtect;
std::vector<std::string> ServingFilter::m_derivedMaps;

namespace {

bool holds(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

boost::shared_ptr<const std::vector<std::string>> readList(const char* key) {
    const auto config = getConfig();
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "canServeToClients: %s=%s", key,
              config->get(key).c_str());
    return boost::make_shared<const std::vector<std::string>>(config->getList(key));
}

} // namespace

void ServingFilter::readConfiguration() {
    m_permittedMaps = readList(PROP_MAPS);
    m_excludeMaps = readList(PROP_EXCLUDE_MAPS);
    m_permittedMapsInitialized = true;
}

bool ServingFilter::canServeToClients(const std::string& map) {
    Names permitted;
    Names excluded;
    {
        const tessa::Lock lock(m_permittedMapsProtect);
        if (!m_permittedMapsInitialized) {
            readConfiguration();
        }
        permitted = m_permittedMaps;
        excluded = m_excludeMaps;
    }
    if (holds(*excluded, map)) {
        return false;
    }
    return permitted->empty() || holds(*permitted, map);
}

bool ServingFilter::neverDownloadMapFromAD(const std::string& map) {
    const tessa::Lock lock(m_derivedMapsProtect);
    return holds(m_derivedMaps, map);
}

void ServingFilter::addDerivedMap(const std::string& map) {
    const tessa::Lock lock(m_derivedMapsProtect);
    if (!holds(m_derivedMaps, map)) {
        m_derivedMaps.push_back(map);
    }
}

void ServingFilter::reset() {
    const tessa::Lock lock(m_permittedMapsProtect);
    m_permittedMapsInitialized = false;
}

} // namespace nis
