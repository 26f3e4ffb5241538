// How an explicit map stores, changes and removes the records of its objects.
#include "maps/DerivedMap.h"
#include "maps/WellKnownMaps.h"
#include "unit/maps/MapsFixture.h"
#include "unit/maps/ObjectFeed.h"

#include <atomic>
#include <random>
#include <set>
#include <thread>

namespace {

using test::Entries;
using test::ObjectFeed;

/// A kind whose passes the test feeds.
template <typename Kind> class Fed : public Kind {
public:
    using Kind::Kind;
    int load(ObjectFeed& feed) {
        const tessa::WriterLock lock(this->getReaderWriterLock());
        return Kind::load(feed);
    }
    int apply(ObjectFeed& feed) { return Kind::applyChanges(feed); }
};

class ExplicitRecordsTest : public test::MapsFixture {
protected:
    template <typename Kind> boost::shared_ptr<Fed<Kind>> make(const std::string& name) {
        return boost::make_shared<Fed<Kind>>(makeCache(name));
    }
};

TEST_F(ExplicitRecordsTest, PlainMapStoresKeyAndIdentifier) {
    const auto map = make<nis::ExplicitADNisMap>("auto.home");
    ObjectFeed feed;
    feed.put("1", "ines", "server:/home/ines").put("2", "tomas", "server:/home/tomas");
    EXPECT_EQ(map->load(feed), 2);
    EXPECT_EQ(map->numMapsServed(), 1U);
    EXPECT_EQ(layer(*map->cache(), 0),
              (Entries{{"ines", "server:/home/ines"}, {"tomas", "server:/home/tomas"}}));
    EXPECT_EQ(layer(*map->cache(), 1),
              (Entries{{ObjectFeed::guid("1"), "ines"}, {ObjectFeed::guid("2"), "tomas"}}));
    EXPECT_TRUE(map->getDerivedMaps().empty());
    EXPECT_TRUE(map->mustCacheThisMap("auto.home"));
    EXPECT_FALSE(map->mustCacheThisMap("other"));
    EXPECT_STREQ(map->type_name(), "ExplicitADNisMap");
}

TEST_F(ExplicitRecordsTest, FamilyIsStoredUnderAllItsKeys) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "alpha", "10.0.0.1 alpha beta # x");
    map->load(feed);
    const std::string value = "10.0.0.1 alpha beta # x";
    EXPECT_EQ(layer(*map->cache(), 0), (Entries{{"alpha", value}, {"beta", value}}));
    EXPECT_EQ(layer(*map->cache(), 2), (Entries{{"10.0.0.1", value}}));
    EXPECT_EQ(layer(*map->cache(), 1), (Entries{{ObjectFeed::guid("1"), "alpha"}}));
    EXPECT_FALSE(map->mustCacheThisMap("hosts"));
    EXPECT_TRUE(map->neverDownloadMapFromAD("hosts.byaddr"));
    EXPECT_FALSE(map->neverDownloadMapFromAD("hosts"));
    EXPECT_TRUE(nis::ServingFilter::neverDownloadMapFromAD("hosts.byname"));
}

TEST_F(ExplicitRecordsTest, DeletedObjectsAreNotLoaded) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "1").gone("2");
    EXPECT_EQ(map->load(feed), 1);
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}}));
}

TEST_F(ExplicitRecordsTest, LaterObjectWinsInALoad) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "first").put("2", "a", "second");
    const std::string log = logOf([&] { map->load(feed); });
    EXPECT_EQ(walk(*map), (Entries{{"a", "second"}}));
    EXPECT_EQ(log.find("duplicate"), std::string::npos);
}

TEST_F(ExplicitRecordsTest, OtherServerStopsTheLoad) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "1").put("2", "b", "2", "dc2").put("3", "c", "3");
    EXPECT_EQ(refusal<nis::ServerMismatch>([&] { map->load(feed); }),
              "Data is from different server");
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}}));
}

TEST_F(ExplicitRecordsTest, OtherServerStopsTheUpdateWithoutUndoingIt) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "1").put("2", "b", "2", "dc2").put("3", "c", "3");
    EXPECT_EQ(refusal<nis::ServerMismatch>([&] { map->apply(feed); }),
              "Data is from different server");
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}}));
}

TEST_F(ExplicitRecordsTest, ChangedKeyLeavesNothingBehind) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "alpha", "10.0.0.1 alpha beta");
    map->load(feed);
    ObjectFeed change;
    change.put("1", "gamma", "10.0.0.2 gamma beta");
    std::string log = logOf([&] { EXPECT_EQ(map->apply(change), 1); });
    EXPECT_NE(log.find("hosts - alpha"), std::string::npos) << log;
    EXPECT_NE(log.find("hosts + gamma: 10.0.0.2 gamma beta"), std::string::npos) << log;
    const std::string value = "10.0.0.2 gamma beta";
    EXPECT_EQ(layer(*map->cache(), 0), (Entries{{"gamma", value}, {"beta", value}}));
    EXPECT_EQ(layer(*map->cache(), 2), (Entries{{"10.0.0.2", value}}));
    EXPECT_EQ(layer(*map->cache(), 1), (Entries{{ObjectFeed::guid("1"), "gamma"}}));
}

TEST_F(ExplicitRecordsTest, DeletedObjectTakesAllItsKeysAlong) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "alpha", "10.0.0.1 alpha beta").put("2", "gamma", "10.0.0.2 gamma");
    map->load(feed);
    ObjectFeed change;
    change.gone("1").gone("unknown");
    EXPECT_EQ(map->apply(change), 2);
    EXPECT_EQ(layer(*map->cache(), 0), (Entries{{"gamma", "10.0.0.2 gamma"}}));
    EXPECT_EQ(layer(*map->cache(), 1), (Entries{{ObjectFeed::guid("2"), "gamma"}}));
    EXPECT_EQ(layer(*map->cache(), 2), (Entries{{"10.0.0.2", "10.0.0.2 gamma"}}));
}

TEST_F(ExplicitRecordsTest, KeysExchangedInOneBatch) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "one").put("2", "b", "two");
    map->load(feed);
    ObjectFeed change;
    change.put("1", "b", "one").put("2", "a", "two");
    const std::string log = logOf([&] { map->apply(change); });
    EXPECT_EQ(walk(*map), (Entries{{"a", "two"}, {"b", "one"}}));
    EXPECT_NE(log.find("meet duplicate b: one in layer 0"), std::string::npos);
    EXPECT_EQ(log.find("still duplicate"), std::string::npos);
}

TEST_F(ExplicitRecordsTest, RealDuplicateIsWonByTheLaterChange) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "first");
    map->load(feed);
    ObjectFeed change;
    change.put("2", "a", "second");
    const std::string log = logOf([&] { map->apply(change); });
    EXPECT_EQ(walk(*map), (Entries{{"a", "second"}}));
    EXPECT_NE(log.find("meet duplicate a: second in layer 0"), std::string::npos);
    EXPECT_NE(log.find("a: second is still duplicate in layer 0"), std::string::npos);
}

TEST_F(ExplicitRecordsTest, LoserOfADuplicateLeavesTheWinnerAlone) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "alpha", "10.0.0.1 alpha one").put("2", "alpha", "10.0.0.2 alpha two");
    map->load(feed);
    ObjectFeed change;
    change.gone("1");
    map->apply(change);
    const std::string value = "10.0.0.2 alpha two";
    EXPECT_EQ(layer(*map->cache(), 0), (Entries{{"alpha", value}, {"two", value}}));
    EXPECT_EQ(layer(*map->cache(), 2), (Entries{{"10.0.0.2", value}}));
}

TEST_F(ExplicitRecordsTest, WinnerOfADuplicateLeavesTheKeyToTheOther) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "alpha", "10.0.0.1 alpha one").put("2", "alpha", "10.0.0.2 alpha two");
    map->load(feed);
    ObjectFeed change;
    change.gone("2");
    map->apply(change);
    const std::string value = "10.0.0.1 alpha one";
    EXPECT_EQ(layer(*map->cache(), 0), (Entries{{"alpha", value}, {"one", value}}));
    EXPECT_TRUE(layer(*map->cache(), nis::RecordLedger::CONTESTED_LAYER).empty());
}

TEST_F(ExplicitRecordsTest, EntryThatWasMadeTwiceSurvivesTheRemovalOfOne) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "same").put("2", "a", "same");
    map->load(feed);
    ObjectFeed change;
    change.gone("1");
    map->apply(change);
    EXPECT_EQ(walk(*map), (Entries{{"a", "same"}}));
    ObjectFeed last;
    last.gone("2");
    map->apply(last);
    EXPECT_TRUE(walk(*map).empty());
}

TEST_F(ExplicitRecordsTest, AliasWhoseNameIsNotTheRecordsKey) {
    const auto map = make<nis::ADAliasesMap>("aliases");
    ObjectFeed feed;
    feed.put("1", "root", "postmaster: ines@lab");
    map->load(feed);
    EXPECT_EQ(layer(*map->cache(), 0), (Entries{{"postmaster", "postmaster: ines@lab"}}));
    EXPECT_EQ(layer(*map->cache(), 2), (Entries{{"root", "ines@lab"}}));
    EXPECT_EQ(layer(*map->cache(), 3), (Entries{{"ines@lab", "root"}}));
    ObjectFeed change;
    change.gone("1");
    map->apply(change);
    for (unsigned char number : {0, 1, 2, 3}) {
        EXPECT_TRUE(layer(*map->cache(), number).empty()) << static_cast<int>(number);
    }
}

TEST_F(ExplicitRecordsTest, RecordWithoutKeyForOneMapIsLeftOutOfThatMap) {
    const auto map = make<nis::ADNetworksMap>("networks");
    ObjectFeed feed;
    feed.put("1", "lonely", "lonely");
    map->load(feed);
    EXPECT_TRUE(layer(*map->cache(), 0).empty());
    EXPECT_EQ(layer(*map->cache(), 2), (Entries{{"lonely", "lonely"}}));
    ObjectFeed change;
    change.gone("1");
    map->apply(change);
    EXPECT_TRUE(layer(*map->cache(), 2).empty());
}

TEST_F(ExplicitRecordsTest, UnusableRecordIsReportedAndLeftOut) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "x", "nowhere x").put("2", "y", "10.0.0.2 y");
    std::string log = logOf([&] { EXPECT_EQ(map->load(feed), 2); });
    EXPECT_NE(log.find("Error when parsing record 'bad record:nowhere x'"), std::string::npos);
    EXPECT_EQ(layer(*map->cache(), 0), (Entries{{"y", "10.0.0.2 y"}}));
    ObjectFeed change;
    change.put("2", "y", "255.255.255.255 y");
    log = logOf([&] { map->apply(change); });
    EXPECT_NE(log.find("Error when parsing record 'bad record:255.255.255.255 y'"),
              std::string::npos);
    EXPECT_TRUE(layer(*map->cache(), 0).empty());
    EXPECT_TRUE(layer(*map->cache(), 2).empty());
}

TEST_F(ExplicitRecordsTest, EntryWithoutKeyDoesNotStopTheMap) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "", "value without key").put("2", "a", "1");
    const std::string log = logOf([&] { map->load(feed); });
    EXPECT_NE(log.find("Error when parsing record 'bad record:value without key'"),
              std::string::npos);
    EXPECT_EQ(walk(*map), (Entries{{"a", "1"}}));
}

TEST_F(ExplicitRecordsTest, EntryWithoutValueIsServed) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    ObjectFeed feed;
    feed.put("1", "a", "");
    map->load(feed);
    EXPECT_EQ(map->match("a"), "");
}

TEST_F(ExplicitRecordsTest, DerivedMapsAndTheirLayers) {
    const auto map = make<nis::ADAliasesMap>("aliases");
    std::vector<std::string> names;
    std::vector<int> layers;
    for (const auto& derived : map->getDerivedMaps()) {
        const auto* kind = dynamic_cast<nis::DerivedMap*>(derived.get());
        ASSERT_NE(kind, nullptr);
        names.push_back(kind->getName());
        layers.push_back(kind->layer());
        EXPECT_EQ(&kind->getReaderWriterLock(), &map->getReaderWriterLock());
        EXPECT_EQ(kind->getServer(), "dc1");
        EXPECT_EQ(kind->getDomain(), "dom");
    }
    EXPECT_EQ(names, (std::vector<std::string>{"aliases.default", "mail.aliases", "mail.byaddr"}));
    EXPECT_EQ(layers, (std::vector<int>{0, 2, 3}));
    configure({{"nisd.exclude.maps", "mail.aliases"}});
    layers.clear();
    for (const auto& derived : map->getDerivedMaps()) {
        layers.push_back(dynamic_cast<nis::DerivedMap&>(*derived).layer());
    }
    EXPECT_EQ(layers, (std::vector<int>{0, 3}));
}

TEST_F(ExplicitRecordsTest, DerivedMapServesItsLayer) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "alpha", "10.0.0.1 alpha").put("2", "beta", "10.0.0.2 beta");
    map->load(feed);
    const auto derived = map->getDerivedMaps().back();
    EXPECT_EQ(derived->getName(), "hosts.byaddr");
    EXPECT_EQ(derived->match("10.0.0.2"), "10.0.0.2 beta");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { derived->match("alpha"); }), "alpha");
    const Entries both{{"10.0.0.1", "10.0.0.1 alpha"}, {"10.0.0.2", "10.0.0.2 beta"}};
    EXPECT_EQ(walk(*derived), both);
    EXPECT_EQ(transfer(*derived), both);
    EXPECT_EQ(derived->getOrder(), map->getOrder());
}

// Derived maps read without the map's lock, yet a record that is only rewritten is always there.
TEST_F(ExplicitRecordsTest, RewrittenRecordNeverDisappears) {
    const auto map = make<nis::ADHostsMap>("hosts");
    ObjectFeed feed;
    feed.put("1", "alpha", "10.0.0.1 alpha a0");
    map->load(feed);
    const auto derived = map->getDerivedMaps();
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (!done) {
            EXPECT_NO_THROW(derived.front()->match("alpha"));
            EXPECT_NO_THROW(derived.back()->match("10.0.0.1"));
            ++reads;
        }
    });
    for (int i = 1; i < 50 || reads < 200; ++i) {
        ObjectFeed change;
        change.put("1", "alpha", "10.0.0.1 alpha a" + std::to_string(i));
        map->apply(change);
    }
    done = true;
    reader.join();
}

/// What a map must hold for the objects that live: under every key that an object claims the value
/// of one of those who claim it, and nothing else.
template <typename Kind>
void checkAgainstObjects(const Kind& map, const std::map<std::string, nis::MapEntry>& objects) {
    std::map<std::pair<int, std::string>, std::set<std::string>> claims;
    std::map<std::string, std::string> identifiers;
    for (const auto& [id, record] : objects) {
        for (unsigned index = 0; index < map.numMapsServed(); ++index) {
            std::string value = record.value;
            const auto keys = map.nth_key(record.key, value, index);
            for (const std::string& key : *keys) {
                claims[{index == 0 ? 0 : static_cast<int>(index) + 1, key}].insert(value);
            }
        }
    }
    for (const int layer : {0, 2, 3}) {
        for (auto entry = map.cacheGetFirst(static_cast<unsigned char>(layer)); !entry.key.empty();
             entry = map.cacheGetNext(entry.key, static_cast<unsigned char>(layer))) {
            const auto claim = claims.find({layer, entry.key});
            ASSERT_NE(claim, claims.end()) << "stale " << entry.key << " in layer " << layer;
            EXPECT_EQ(claim->second.count(entry.value), 1U)
                << entry.key << " has a value that nobody gave it: " << entry.value;
            claims.erase(claim);
        }
    }
    for (const auto& [slot, values] : claims) {
        ADD_FAILURE() << "lost " << slot.second << " of layer " << slot.first << ", value "
                      << *values.begin();
    }
}

/// Objects come, change and go at random, with keys from a set so small that they often collide.
template <typename Kind, typename Record>
void runRandomChanges(Kind& map, unsigned seed, const Record& record) {
    std::mt19937 random(seed);
    std::map<std::string, nis::MapEntry> objects;
    for (int pass = 0; pass < 40; ++pass) {
        ObjectFeed feed;
        for (unsigned i = random() % 5; i > 0; --i) {
            const std::string id = std::to_string(random() % 12);
            if (random() % 3 == 0) {
                feed.gone(id);
                objects.erase(id);
            } else {
                const nis::MapEntry entry = record(random);
                feed.put(id, entry.key, entry.value);
                objects[id] = entry;
            }
        }
        map.apply(feed);
        checkAgainstObjects(map, objects);
        if (testing::Test::HasFailure()) {
            FAIL() << "in pass " << pass << " with seed " << seed;
        }
    }
}

TEST_F(ExplicitRecordsTest, RandomChangesOfHosts) {
    for (unsigned seed = 1; seed <= 5; ++seed) {
        const auto map = make<nis::ADHostsMap>("hosts");
        map->deleteOnClose();
        runRandomChanges(*map, seed, [](std::mt19937& random) {
            const std::string name = "h" + std::to_string(random() % 6);
            std::string value = "10.0.0." + std::to_string(random() % 6) + " " + name;
            for (unsigned i = random() % 3; i > 0; --i) {
                value += " a" + std::to_string(random() % 6);
            }
            return nis::MapEntry{name, value};
        });
    }
}

TEST_F(ExplicitRecordsTest, RandomChangesOfAliases) {
    for (unsigned seed = 1; seed <= 5; ++seed) {
        const auto map = make<nis::ADAliasesMap>("aliases");
        map->deleteOnClose();
        runRandomChanges(*map, seed, [](std::mt19937& random) {
            const std::string name = "n" + std::to_string(random() % 4);
            return nis::MapEntry{"n" + std::to_string(random() % 4),
                                 name + ": u" + std::to_string(random() % 4) + "@lab"};
        });
    }
}

TEST_F(ExplicitRecordsTest, RandomChangesOfAPlainMap) {
    const auto map = make<nis::ExplicitADNisMap>("m");
    runRandomChanges(*map, 7, [](std::mt19937& random) {
        return nis::MapEntry{"k" + std::to_string(random() % 8), std::to_string(random() % 3)};
    });
}

} // namespace
