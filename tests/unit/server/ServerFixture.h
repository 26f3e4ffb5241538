#pragma once

#include "common/ConfigKeys.h"
#include "directory/ADInterface.h"
#include "server/ADNisServer.h"
#include "store/CacheSnapshot.h"
#include "support/TestDirectory.h"
#include "unit/maps/MapsFixture.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace test {

/// A cache directory with caches as an earlier run left them, and servers on it.
class ServerFixture : public MapsFixture {
protected:
    static constexpr const char* DOMAIN = "dom";
    static constexpr const char* HIERARCHY = "CN=zoneA,CN=Zones,DC=example,DC=com";

    ServerFixture() { setThresholds(tessa::LOG_WARN); }
    ~ServerFixture() override {
        nis::setNisServer(nullptr);
        nis::setADInterface(nullptr);
    }

    /// What a cache on disk says of itself.
    struct Saved {
        std::string map;
        std::string server = "dc1";
        Entries entries{{"key", "value"}};
        std::string domain = DOMAIN;
        std::string hierarchy = HIERARCHY;
        std::string zone = HIERARCHY;
        std::int64_t usn = 7;
        long updated = 1000;
        long current = 0;
    };
    /// Writes a cache and closes it.
    /// @return its file name
    static std::string save(const Saved& saved) {
        nis::NisCache cache(saved.domain, saved.map, saved.server, saved.hierarchy, saved.zone,
                            "CN=" + saved.map + ",CN=nismaps," + saved.zone);
        for (const auto& [key, value] : saved.entries) {
            cache.put(key, value, 0);
        }
        cache.setHighUSN(saved.usn);
        cache.setLastUpdateTime(saved.updated);
        cache.setLastCurrentTime(saved.current);
        return cache.getFilename();
    }
    static std::string saveGlobal(const std::string& map, const Entries& entries) {
        Saved saved{map, ".GLOBAL", entries};
        saved.hierarchy = ".GLOBAL";
        saved.zone = "";
        return save(saved);
    }

    static std::vector<std::string> mapList(const nis::ADNisServer& server,
                                            const char* domain = DOMAIN) {
        std::vector<std::string> names = *server.getMapList(domain);
        std::sort(names.begin(), names.end());
        return names;
    }
    /// Values by key of what a whole-map transfer delivers.
    static Entries transferOf(const nis::ADNisServer& server, const char* map,
                              const char* domain = DOMAIN) {
        Entries found;
        const auto iterator = server.getAll(domain, map);
        for (nis::MapEntry entry = **iterator; !entry.key.empty(); entry = *++*iterator) {
            EXPECT_TRUE(found.emplace(entry.key, entry.value).second) << "repeated " << entry.key;
        }
        return found;
    }
    static bool exists(const std::string& file) { return std::filesystem::exists(file); }
    static bool has(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }
};

/// The same with a real directory behind it.
class DirectoryFixture : public ServerFixture {
protected:
    static constexpr const char* ZONE = TestDirectory::ZONE;

    /// Starts the directory and the way into it.
    void startDirectory(const std::string& ldif, const std::string& zone = ZONE) {
        m_directory = std::make_unique<TestDirectory>(ldif, zone);
        connect();
    }
    static void connect() {
        const auto interface = boost::make_shared<nis::ADInterface>();
        interface->updateZoneHierarchy();
        nis::setADInterface(interface);
    }
    static std::unique_ptr<nis::ADNisServer> makeServer(bool flush = false) {
        return std::make_unique<nis::ADNisServer>(DOMAIN, flush);
    }
    /// The zone with two maps of its own and a user and a group.
    static std::string company(const std::string& server = TestDirectory::SERVER) {
        using T = TestDirectory;
        return T::base(server) + T::map("hosts") + T::entry("hosts", "h1", "a", "10.0.0.1 a") +
               T::entry("hosts", "h2", "b", "10.0.0.2 b") + T::map("auto.home") +
               T::entry("auto.home", "e1", "ann", "srv:/home/ann") + T::user("ann", 1000, 100) +
               T::group("staff", 100, {"ann"});
    }

    std::unique_ptr<TestDirectory> m_directory;
};

} // namespace test
