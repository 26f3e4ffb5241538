// Start-up discovery: the caches and snapshots that an earlier run left in the current directory
// become maps again, so that clients are served before the directory has been asked anything.
#include "common/Globals.h"
#include "common/NisException.h"
#include "directory/ADInterface.h"
#include "server/ADNisServer.h"
#include "server/GlobalMapSet.h"
#include "store/CacheSnapshot.h"
#include "store/NisCache.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <boost/make_shared.hpp>

#include <cerrno>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nis {

namespace {

using Cache = boost::shared_ptr<NisCache>;
using Snapshot = boost::shared_ptr<CacheSnapshot>;

constexpr const char* JOURNAL_SUFFIX = "-journal";

/// What was found in the cache folder and could be opened.
struct Found {
    std::list<Cache> caches;
    std::list<Snapshot> snapshots;
};

std::list<std::string> readFolder() {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("."), closedir);
    if (!folder) {
        TESSA_THROW(tessa::NotFoundException, tessa::errorText(errno));
    }
    std::list<std::string> names;
    while (const dirent* entry = readdir(folder.get())) {
        names.emplace_back(entry->d_name);
    }
    return names;
}

/// The store's own second file, which it needs when it is opened.
bool isJournalOfCache(const std::string& name) {
    const std::string suffix = std::string(NisCache::MAP_SUFFIX) + JOURNAL_SUFFIX;
    return name.ends_with(suffix) &&
           NisCache::IsCacheFile(name.substr(0, name.size() - std::string(JOURNAL_SUFFIX).size()));
}

void removeFile(const std::string& name) {
    if (unlink(name.c_str()) != 0 && errno != ENOENT) {
        KARST_LOG(logger, tessa::LOG_WARN, "Cannot delete '%s': %s", name.c_str(),
                  tessa::errorText(errno).c_str());
    }
}

/// Opens a file of this kind; one that cannot be opened is removed.
template <typename Kind>
boost::shared_ptr<Kind> openFile(const std::string& name, const char* kind) {
    try {
        return boost::make_shared<Kind>(name);
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_INFORMATION, "While opening %s file '%s': %s. Deleting file.",
                  kind, name.c_str(), e.msg().c_str());
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_INFORMATION, "While opening %s file '%s': %s. Deleting file.",
                  kind, name.c_str(), e.what());
    } catch (...) {
        KARST_LOG(logger, tessa::LOG_INFORMATION,
                  "While opening %s file '%s': unknown exception. Deleting file.", kind,
                  name.c_str());
    }
    removeFile(name);
    return {};
}

void openRegularFile(const std::string& name, Found& found) {
    if (NisCache::IsCacheFile(name)) {
        if (auto cache = openFile<NisCache>(name, "cache")) {
            found.caches.push_back(std::move(cache));
        } else {
            removeFile(name + JOURNAL_SUFFIX);
        }
    } else if (CacheSnapshot::IsCacheSnapshotFile(name)) {
        if (auto snapshot = openFile<CacheSnapshot>(name, "snapshot")) {
            found.snapshots.push_back(std::move(snapshot));
        }
    } else if (!isJournalOfCache(name)) {
        KARST_LOG(logger, tessa::LOG_INFORMATION, "Deleting unknown file '%s'.", name.c_str());
        removeFile(name);
    }
}

Found openFiles() {
    Found found;
    for (const std::string& name : readFolder()) {
        if (name == "." || name == "..") {
            continue;
        }
        struct stat status {};
        if (lstat(name.c_str(), &status) != 0) {
            if (errno != ENOENT) { // else it went with the cache that it belonged to
                KARST_LOG(logger, tessa::LOG_WARN, "Cannot stat '%s'. Ignoring.", name.c_str());
            }
        } else if (S_ISDIR(status.st_mode)) {
            KARST_LOG(logger, tessa::LOG_WARN, "Unexpected directory '%s'. Ignoring.",
                      name.c_str());
        } else if (!S_ISREG(status.st_mode)) {
            KARST_LOG(logger, tessa::LOG_WARN, "Deleting unexpected non-file entry '%s'.",
                      name.c_str());
            removeFile(name);
        } else {
            openRegularFile(name, found);
        }
    }
    return found;
}

bool isGlobal(const NisCache& cache) {
    return cache.getServer() == GlobalMapSet::GLOBAL_NAME;
}

void discard(const NisCache& cache, const char* reason) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Discarding cache %s%s", cache.getFilename().c_str(),
              reason);
}

/// Drops the caches of another place in the zone hierarchy: their maps may not be this machine's.
void dropForeignHierarchies(std::list<Cache>& caches) {
    const auto interface = getADInterface();
    std::string reference = interface ? interface->getZoneHierarchy() : "";
    for (auto place = caches.begin(); place != caches.end();) {
        NisCache& cache = **place;
        if (reference.empty() && !isGlobal(cache)) {
            reference = cache.getZoneHierarchy();
        }
        if (isGlobal(cache) || cache.getZoneHierarchy() == reference) {
            ++place;
            continue;
        }
        discard(cache, ": other zone hierarchy");
        cache.deleteOnClose();
        place = caches.erase(place);
    }
}

/// When the cache was last changed: by its own account, then by the file system's.
auto age(const NisCache& cache) {
    struct stat status {};
    stat(cache.getFilename().c_str(), &status);
    return std::make_tuple(cache.getLastUpdateTime(), cache.getOrder(), status.st_mtim.tv_sec,
                           status.st_mtim.tv_nsec);
}

/// A crash between the writing of a new cache and the removal of the old one leaves both.
void dropOlderTwins(std::list<Cache>& caches) {
    std::map<std::pair<std::string, std::string>, Cache> newest;
    for (const Cache& cache : caches) {
        Cache& kept = newest[{cache->getServer(), cache->getMapName()}];
        if (!kept) {
            kept = cache;
            continue;
        }
        const Cache older = age(*cache) > age(*kept) ? std::exchange(kept, cache) : cache;
        discard(*older, ": there is a newer one");
        older->deleteOnClose();
    }
    caches.remove_if([&newest](const Cache& cache) {
        return newest[{cache->getServer(), cache->getMapName()}] != cache;
    });
}

/// Why a cache is of no use, or a null pointer.
const char* reasonToDiscard(const NisCache& cache, const std::string& domain, bool flush,
                            const MapSetManager& manager) {
    if (flush) {
        return "";
    }
    if (cache.getDomain() != domain) {
        return ": wrong domain";
    }
    if (cache.getHighUSN() == tessa::Int64::ZERO) {
        return ": initialization incomplete";
    }
    if (!manager.mustCacheThisMap(cache.getMapName())) {
        return ": map not permitted by configuration";
    }
    return nullptr;
}

void installMap(const Cache& cache, MapSetManager& manager) {
    const auto set = manager.getMapSet(cache->getServer());
    try {
        if (const auto map = set->makeADNisMap(cache)) {
            set->install(map);
            return;
        }
        discard(*cache, ": no map of this set");
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Discarding cache %s: %s", cache->getFilename().c_str(),
                  e.msg().c_str());
    }
    cache->deleteOnClose();
}

void attach(const Snapshot& snapshot, MapSetManager& manager) {
    const std::string& file = snapshot->getFilename();
    try {
        manager.attachSnapshot(snapshot);
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Attach snapshot %s failed: %s", file.c_str(),
                  e.msg().c_str());
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Attach snapshot %s failed: %s", file.c_str(),
                  e.what());
    } catch (...) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Attach snapshot %s failed: unknow exception",
                  file.c_str());
    }
}

} // namespace

void ADNisServer::initMapSets(bool flush) {
    Found found = openFiles();
    dropForeignHierarchies(found.caches);
    found.caches.remove_if([this, flush](const Cache& cache) {
        const char* reason = reasonToDiscard(*cache, m_domain, flush, m_manager);
        if (reason == nullptr) {
            return false;
        }
        discard(*cache, reason);
        cache->deleteOnClose();
        return true;
    });
    dropOlderTwins(found.caches);
    for (const Cache& cache : found.caches) {
        installMap(cache, m_manager);
    }
    m_manager.sortMapSets();
    for (const Snapshot& snapshot : found.snapshots) {
        if (flush) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Discarding snapshot %s",
                      snapshot->getFilename().c_str());
        } else {
            attach(snapshot, m_manager);
        }
    }
}

} // namespace nis
