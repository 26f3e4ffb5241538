#pragma once

#include "common/Globals.h"
#include "common/NisException.h"
#include "common/SnapshotSource.h"
#include "store/NisCache.h"
#include "support/TempFolder.h"

#include <karst/DBStore.h>

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace test {

using Entries = std::map<std::string, std::string>;

/// A cache directory, and what the tests of this folder share.
class StoreFixture : public testing::Test {
protected:
    static boost::shared_ptr<nis::NisCache> makeCache(const std::string& map = "hosts.byname",
                                                      const std::string& server = "dc1") {
        return boost::make_shared<nis::NisCache>("dom", map, server, "zone\nhierarchy",
                                                 "target\nzones", "CN=hosts,DC=x");
    }
    /// What a layer holds, by a walk with getFirst() and getNext().
    static Entries layer(const nis::NisCache& cache, unsigned char number) {
        Entries found;
        for (nis::MapEntry entry = cache.getFirst(number); !entry.key.empty();
             entry = cache.getNext(entry.key, number)) {
            EXPECT_TRUE(found.emplace(entry.key, entry.value).second) << "repeated " << entry.key;
        }
        return found;
    }
    /// The records of a closed store as they are in the file.
    static Entries rawRecords(const std::string& file) {
        tessa::DBStore store;
        store.open(file, tessa::DB_OPEN, 0600);
        Entries found;
        const auto iterator = store.getIterator();
        while (iterator->hasNext()) {
            const std::string value = iterator->next().toString();
            found[iterator->key()] = value;
        }
        return found;
    }
    /// The text with which something is refused; empty when it is not. `arg` gets the argument.
    template <typename Exception, typename Action>
    static std::string refusal(const Action& action, std::string* arg = nullptr) {
        try {
            action();
        } catch (const Exception& e) {
            if (arg != nullptr) {
                *arg = e.arg();
            }
            return e.what();
        }
        return "";
    }
    /// What is logged while the action runs, at every level.
    template <typename Action> static std::string logOf(const Action& action) {
        nis::logger->setThreshold(tessa::LOG_TRACE);
        testing::internal::CaptureStderr();
        action();
        nis::logger->setThreshold(tessa::LOG_INFORMATION);
        return testing::internal::GetCapturedStderr();
    }

    TempFolder m_folder;
};

/// A map in memory, to make snapshots of.
class FakeMap : public nis::SnapshotSource {
public:
    explicit FakeMap(Entries content, std::uint32_t number = 42,
                     std::string called = "hosts.byname")
        : entries(std::move(content)), order(number), name(std::move(called)) {}

    std::string getName() const override { return name; }
    tessa::ReaderWriterLock& getReaderWriterLock() const override { return m_lock; }
    nis::MapEntry getFirst() const override {
        lockHeld = lockHeld && m_lock.holdsReaderLock();
        return at(entries.begin());
    }
    nis::MapEntry getNext(const std::string& key) const override {
        lockHeld = lockHeld && m_lock.holdsReaderLock();
        return at(entries.upper_bound(key));
    }
    std::uint32_t getOrder() const override { return order; }

    Entries entries;
    std::uint32_t order;
    std::string name;
    mutable bool lockHeld = true;

private:
    nis::MapEntry at(Entries::const_iterator place) const {
        return place == entries.end() ? nis::MapEntry::NOT_FOUND
                                      : nis::MapEntry{place->first, place->second};
    }
    mutable tessa::ReaderWriterLock m_lock;
};

} // namespace test
