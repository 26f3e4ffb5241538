#include "maps/MapFactory.h"
#include "maps/netgroup/ADNetgroupMap.h"
#include "maps/netgroup/MemberParser.h"
#include "maps/netgroup/NetgroupBy.h"
#include "unit/maps/MapsFixture.h"
#include "unit/maps/ObjectFeed.h"

#include <random>
#include <set>

namespace {

using test::Entries;
using test::ObjectFeed;

class OpenNetgroupMap : public nis::ADNetgroupMap {
public:
    using ADNetgroupMap::ADNetgroupMap;
    using ADNetgroupMap::cacheReverted;
    int apply(ObjectFeed& feed) { return applyChanges(feed); }
    /// As a pass does.
    void put(const std::string& name, const std::string& value) {
        const tessa::WriterLock lock(getReaderWriterLock());
        cachePut(name, value, 0);
    }
    void remove(const std::string& name) {
        const tessa::WriterLock lock(getReaderWriterLock());
        cacheRemove(name, 0);
    }
};

class NetgroupMapTest : public test::MapsFixture {
protected:
    NetgroupMapTest() : m_map(boost::make_shared<OpenNetgroupMap>(makeCache("netgroup"))) {}

    static boost::shared_ptr<nis::NisMap> derived(nis::ADNetgroupMap& map,
                                                  const std::string& name) {
        for (const auto& candidate : map.getDerivedMaps()) {
            if (candidate->getName() == name) {
                return candidate;
            }
        }
        return {};
    }
    Entries byHost() { return walk(*derived(*m_map, "netgroup.byhost")); }
    Entries byUser() { return walk(*derived(*m_map, "netgroup.byuser")); }

    boost::shared_ptr<OpenNetgroupMap> m_map;
};

TEST_F(NetgroupMapTest, TriplesAppearByHostAndByUser) {
    m_map->put("ng", "(h1,u1,d) (h2,,d) (,u2,)");
    EXPECT_EQ(byHost(), (Entries{{"h1.d", "ng"}, {"h2.d", "ng"}, {"*.*", "ng"}}));
    EXPECT_EQ(byUser(), (Entries{{"u1.d", "ng"}, {"*.d", "ng"}, {"u2.*", "ng"}}));
}

TEST_F(NetgroupMapTest, DashIsNoHostOrUser) {
    const std::string log = logOf([&] { m_map->put("ng", "(h1,-,d)"); });
    EXPECT_EQ(byHost(), (Entries{{"h1.d", "ng"}}));
    EXPECT_EQ(byUser(), Entries{});
    EXPECT_NE(log.find("Skipping (-,d): ng"), std::string::npos) << log;
    EXPECT_NE(log.find("Insert h1.d -> ng"), std::string::npos) << log;
    EXPECT_NE(log.find("Add to byHost: (h1,d) -> ng"), std::string::npos) << log;
    EXPECT_NE(log.find("Add to byUser: (-,d) -> ng"), std::string::npos) << log;
}

TEST_F(NetgroupMapTest, NestedNetgroupsContainTheirMembersMembers) {
    m_map->put("A", "B");
    m_map->put("B", "(h,,d)");
    EXPECT_EQ(byHost(), (Entries{{"h.d", "A,B"}}));
    m_map->put("top", "A (x,,)");
    EXPECT_EQ(byHost(), (Entries{{"h.d", "A,B,top"}, {"x.*", "top"}}));
}

TEST_F(NetgroupMapTest, CyclesEnd) {
    m_map->put("A", "B (h,,d)");
    m_map->put("B", "A C");
    m_map->put("C", "C");
    EXPECT_EQ(byHost(), (Entries{{"h.d", "A,B"}}));
}

TEST_F(NetgroupMapTest, OverwrittenEntryIsForgotten) {
    m_map->put("ng", "(old,,d) oldgroup");
    m_map->put("ng", "(new,,d) newgroup");
    EXPECT_EQ(byHost(), (Entries{{"new.d", "ng"}}));
    m_map->put("oldgroup", "(x,,)");
    m_map->put("newgroup", "(y,,)");
    EXPECT_EQ(byHost(), (Entries{{"new.d", "ng"}, {"x.*", "oldgroup"}, {"y.*", "newgroup,ng"}}));
}

TEST_F(NetgroupMapTest, RemovalUndoesWhatWasPut) {
    m_map->put("A", "(h,u,d) B");
    m_map->put("B", "(h,u,d)");
    m_map->remove("A");
    EXPECT_EQ(byHost(), (Entries{{"h.d", "B"}}));
    m_map->remove("B");
    EXPECT_EQ(byHost(), Entries{});
    EXPECT_EQ(byUser(), Entries{});
    const std::string log = logOf([&] { m_map->remove("B"); });
    EXPECT_NE(log.find("Received UnknownKey while removing deleted entry 'B'"), std::string::npos);
}

TEST_F(NetgroupMapTest, OtherLayersDoNotReachTheTables) {
    m_map->cachePut("ng", "(h,u,d)", 1);
    EXPECT_EQ(byHost(), Entries{});
    m_map->cacheRemove("ng", 1);
    EXPECT_EQ(refusal<nis::DatabaseError>([&] { m_map->cachePut("", "(h,u,d)", 0); }),
              "empty key from: (h,u,d)");
    EXPECT_EQ(byHost(), Entries{});
}

TEST_F(NetgroupMapTest, UnknownKeyOfADerivedMap) {
    m_map->put("ng", "(h,,d)");
    const auto map = derived(*m_map, "netgroup.byhost");
    EXPECT_EQ(map->match("h.d"), "ng");
    EXPECT_EQ(refusal<nis::UnknownKey>([&] { map->match("other.d"); }), "other.d");
    EXPECT_EQ(map->getOrder(), m_map->getOrder());
    EXPECT_EQ(map->getDomain(), "dom");
    EXPECT_EQ(map->getServer(), "dc1");
    EXPECT_EQ(&map->getReaderWriterLock(), &m_map->getReaderWriterLock());
    EXPECT_EQ(transfer(*map), (Entries{{"h.d", "ng"}}));
}

TEST_F(NetgroupMapTest, WalkGoesOnWhenItsKeyIsRemoved) {
    m_map->put("a", "(h1,,d)");
    m_map->put("b", "(h2,,d)");
    m_map->put("c", "(h3,,d)");
    const auto map = derived(*m_map, "netgroup.byhost");
    EXPECT_EQ(map->getNext("h1.d").key, "h2.d");
    m_map->remove("b");
    EXPECT_EQ(map->getNext("h2.d").key, "h3.d");
    EXPECT_EQ(map->getNext("h3.d"), nis::MapEntry::NOT_FOUND);
}

TEST_F(NetgroupMapTest, TablesComeBackFromTheCache) {
    m_map->put("A", "B");
    m_map->put("B", "(h,,d) (broken");
    const std::string file = m_map->cache()->getFilename();
    m_map.reset();
    const std::string log = logOf([&] {
        m_map = boost::make_shared<OpenNetgroupMap>(boost::make_shared<nis::NisCache>(file));
    });
    EXPECT_EQ(log.find("broken"), std::string::npos) << "reported again: " << log;
    EXPECT_EQ(byHost(), (Entries{{"h.d", "A,B"}}));
}

TEST_F(NetgroupMapTest, TablesFollowACacheThatWentBack) {
    m_map->put("A", "(h,,d)");
    // Behind the map's back, as when a transaction is given up.
    m_map->cache()->remove("A", 0);
    m_map->cache()->put("B", "(x,,)", 0);
    m_map->cacheReverted();
    EXPECT_EQ(byHost(), (Entries{{"x.*", "B"}}));
}

TEST_F(NetgroupMapTest, DerivedMapsAreFilteredAndRegistered) {
    EXPECT_TRUE(nis::ServingFilter::neverDownloadMapFromAD("netgroup.byhost"));
    EXPECT_TRUE(m_map->neverDownloadMapFromAD("netgroup.byuser"));
    EXPECT_FALSE(m_map->neverDownloadMapFromAD("netgroup"));
    EXPECT_TRUE(m_map->mustCacheThisMap("netgroup"));
    EXPECT_FALSE(m_map->mustCacheThisMap("netgroup.byhost"));
    configure({{"nisd.maps", "netgroup.byuser"}});
    EXPECT_TRUE(m_map->mustCacheThisMap("netgroup"));
    EXPECT_FALSE(derived(*m_map, "netgroup.byhost"));
    EXPECT_TRUE(derived(*m_map, "netgroup.byuser"));
    configure({{"nisd.maps", "hosts"}});
    EXPECT_FALSE(m_map->mustCacheThisMap("netgroup"));
    m_map->derivedMapRemoved("netgroup.byhost");
    m_map->put("ng", "(h,,d)");
    configure({});
    EXPECT_EQ(byHost(), (Entries{{"h.d", "ng"}}));
    EXPECT_STREQ(m_map->type_name(), "ADNetgroupMap");
}

TEST_F(NetgroupMapTest, DuplicateOfADirectoryObjectTakesOver) {
    ObjectFeed feed;
    feed.put("1", "ng", "(h1,,d)").put("2", "ng", "(h2,,d)");
    m_map->apply(feed);
    EXPECT_EQ(byHost(), (Entries{{"h2.d", "ng"}}));
    ObjectFeed change;
    change.gone("2");
    m_map->apply(change);
    EXPECT_EQ(byHost(), (Entries{{"h1.d", "ng"}}));
}

/// The maps by plain recomputation from all netgroups.
Entries recompute(const std::map<std::string, std::string>& netgroups, bool byHost) {
    std::map<std::string, std::set<std::string>> direct;
    std::map<std::string, std::set<std::string>> parents;
    for (const auto& [name, value] : netgroups) {
        std::list<nis::NetgroupEntry> members;
        nis::ParseNetgroupMembers(value, members, false, name);
        for (const auto& member : members) {
            const std::string& first = byHost ? member.host : member.user;
            if (member.kind == nis::NetgroupEntry::GROUP) {
                parents[member.group].insert(name);
            } else if (first != "-" && member.domain != "-") {
                direct[(first.empty() ? "*" : first) + "." +
                       (member.domain.empty() ? "*" : member.domain)]
                    .insert(name);
            }
        }
    }
    Entries result;
    for (auto& [key, names] : direct) {
        bool grown = true;
        while (grown) {
            const auto before = names;
            for (const std::string& name : before) {
                names.insert(parents[name].begin(), parents[name].end());
            }
            grown = names.size() != before.size();
        }
        for (const std::string& name : names) {
            std::string& value = result[key];
            value += (value.empty() ? "" : ",") + name;
        }
    }
    return result;
}

TEST_F(NetgroupMapTest, RandomForestsAgreeWithRecomputation) {
    std::mt19937 random(20240607);
    const auto pick = [&random](const char* prefix, unsigned count) {
        const unsigned n = static_cast<unsigned>(random() % (count + 2));
        return n == 0 ? std::string() : n == 1 ? "-" : prefix + std::to_string(n);
    };
    std::map<std::string, std::string> netgroups;
    for (int step = 0; step < 400; ++step) {
        const std::string name = "g" + std::to_string(random() % 10);
        if (random() % 4 == 0) {
            m_map->remove(name);
            netgroups.erase(name);
        } else {
            std::string value;
            for (unsigned i = random() % 5; i > 0; --i) {
                value += random() % 2 == 0
                             ? " g" + std::to_string(random() % 10)
                             : " (" + pick("h", 4) + "," + pick("u", 4) + "," + pick("d", 2) + ")";
            }
            m_map->put(name, value);
            netgroups[name] = value;
        }
        if (step % 10 == 0) {
            ASSERT_EQ(byHost(), recompute(netgroups, true)) << "in step " << step;
            ASSERT_EQ(byUser(), recompute(netgroups, false)) << "in step " << step;
        }
    }
}

TEST(InversionTables, RemovingWhatIsNotThereChangesNothing) {
    const auto log = tessa::Logger::get(nis::ORRISD_NETGROUP_INVERSION_LOG_NAME);
    log->setThreshold(tessa::LOG_TRACE);
    nis::NetgroupByInversionTable table;
    table.put("a", "h", "d");
    testing::internal::CaptureStderr();
    table.remove("b", "h", "d");
    table.remove("a", "other", "d");
    std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("Erase h.d -> b -- not present!"), std::string::npos) << text;
    EXPECT_NE(text.find("Erase other.d -> a -- not present!"), std::string::npos) << text;
    EXPECT_EQ(table.table().size(), 1U);
    testing::internal::CaptureStderr();
    table.remove("a", "h", "d");
    text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("Erase h.d -> a"), std::string::npos) << text;
    EXPECT_NE(text.find("Erase key h.d"), std::string::npos) << text;
    EXPECT_TRUE(table.table().empty());
    log->setThreshold(tessa::LOG_INFORMATION);
}

TEST(InversionTables, KeysOfEmptyParts) {
    EXPECT_EQ(nis::MakeKey("h1", "d"), "h1.d");
    EXPECT_EQ(nis::MakeKey("h1", ""), "h1.*");
    EXPECT_EQ(nis::MakeKey("", ""), "*.*");
}

TEST(InversionTables, ParentsOfRemovedGroups) {
    nis::GroupInversionTable table;
    table.put("child", "a");
    table.put("child", "b");
    table.remove("child", "a");
    table.remove("child", "never");
    table.remove("unknown", "a");
    nis::NetgroupNames names{"child"};
    table.expand(names);
    EXPECT_EQ(names, (nis::NetgroupNames{"b", "child"}));
    table.remove("child", "b");
    EXPECT_TRUE(table.empty());
}

} // namespace
