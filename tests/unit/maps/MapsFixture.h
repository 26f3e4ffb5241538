#pragma once

#include "common/Globals.h"
#include "common/NisException.h"
#include "common/ServingFilter.h"
#include "maps/ADNisMap.h"
#include "store/NisCache.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace test {

using Entries = std::map<std::string, std::string>;

/// A cache directory, the configuration, and what the tests of maps share.
class MapsFixture : public testing::Test {
protected:
    MapsFixture() {
        configure({});
        setThresholds(tessa::LOG_INFORMATION);
    }

    static boost::shared_ptr<nis::NisCache> makeCache(const std::string& map,
                                                      const std::string& server = "dc1",
                                                      const std::string& mapDN = "") {
        return boost::make_shared<nis::NisCache>("dom", map, server, "hierarchy", "zone", mapDN);
    }
    /// Replaces the configuration, as a signal to read it again does.
    static void configure(const Entries& settings) {
        auto config = boost::make_shared<tessa::Properties>();
        for (const auto& [key, value] : settings) {
            config->set(key, value);
        }
        nis::setConfig(config);
        nis::ServingFilter::reset();
        nis::ADNisMap::resetDefaultUpdateInterval();
    }
    /// What a layer holds.
    static Entries layer(const nis::NisCache& cache, unsigned char number) {
        Entries found;
        for (nis::MapEntry entry = cache.getFirst(number); !entry.key.empty();
             entry = cache.getNext(entry.key, number)) {
            EXPECT_TRUE(found.emplace(entry.key, entry.value).second) << "repeated " << entry.key;
        }
        return found;
    }
    /// What a map answers by a walk.
    static Entries walk(const nis::NisMap& map) {
        Entries found;
        for (nis::MapEntry entry = map.getFirst(); !entry.key.empty();
             entry = map.getNext(entry.key)) {
            EXPECT_TRUE(found.emplace(entry.key, entry.value).second) << "repeated " << entry.key;
        }
        return found;
    }
    /// What a whole-map transfer delivers.
    static Entries transfer(nis::NisMap& map) {
        Entries found;
        const auto iterator = map.getAll();
        for (nis::MapEntry entry = **iterator; !entry.key.empty(); entry = *++*iterator) {
            EXPECT_TRUE(found.emplace(entry.key, entry.value).second) << "repeated " << entry.key;
        }
        return found;
    }
    /// The text of an exception of that kind; empty when there is none.
    template <typename Exception, typename Action>
    static std::string refusal(const Action& action) {
        try {
            action();
        } catch (const Exception& e) {
            return e.what();
        }
        return "";
    }
    /// What is logged while the action runs, at every level.
    template <typename Action> static std::string logOf(const Action& action) {
        setThresholds(tessa::LOG_TRACE);
        testing::internal::CaptureStderr();
        try {
            action();
        } catch (...) {
            testing::internal::GetCapturedStderr();
            setThresholds(tessa::LOG_INFORMATION);
            throw;
        }
        setThresholds(tessa::LOG_INFORMATION);
        return testing::internal::GetCapturedStderr();
    }
    static void setThresholds(int level) {
        for (const char* name :
             {nis::ORRISD_LOGGER_NAME, nis::ORRISD_NETGROUP_LOG_NAME,
              nis::ORRISD_NETGROUP_SYNTAX_LOG_NAME, nis::ORRISD_NETGROUP_INVERSION_LOG_NAME}) {
            tessa::Logger::get(name)->setThreshold(level);
        }
    }
    /// Names of the files in the cache directory that end so.
    static std::vector<std::string> files(const std::string& ending) {
        std::vector<std::string> names;
        for (const auto& file : std::filesystem::directory_iterator(".")) {
            if (file.path().filename().string().ends_with(ending)) {
                names.push_back(file.path().filename().string());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    TempFolder m_folder;
};

/// A map whose cache the test fills itself.
class PlainMap : public nis::ADNisMap {
public:
    using ADNisMap::ADNisMap;
    void initialize(const tessa::Int64&) override {}
    void update(const tessa::Int64&) override {}
    void rebuild(const tessa::Int64&) override {}
};

} // namespace test
