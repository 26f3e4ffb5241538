#include "ServiceFixture.h"

#include <twine/Frame.h>
#include <twine/Server.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace quorad;
using namespace quorad::testing;

TEST_F(ServiceTest, HelloTellsTheVersion) {
    q_request request = requestFor(Q_HELLO);
    request.q_request_u.protocol = QUORAD_PROTOCOL_VERSION;
    const auto taken = send(request);
    ASSERT_EQ(Q_OK, taken->answer.status);
    EXPECT_EQ(unsigned{QUORAD_PROTOCOL_VERSION}, taken->result().protocol);
}

TEST_F(ServiceTest, AnotherVersionIsRefusedAndDoesNotCountAsGreeting) {
    q_request request = requestFor(Q_HELLO);
    request.q_request_u.protocol = QUORAD_PROTOCOL_VERSION + 1;
    const auto taken = send(request);
    EXPECT_EQ(Q_WRONG_VERSION, taken->answer.status);
    EXPECT_EQ("version 2 is asked for, this is 1", taken->failure());
    EXPECT_EQ(Q_WRONG_VERSION, send(Q_USERS_START)->answer.status);
}

TEST_F(ServiceTest, WithoutGreetingNothingIsAnswered) {
    for (unsigned operation = Q_SETTING; operation <= Q_GROUP; ++operation) {
        q_request request{};
        request.operation = operation;
        request.q_request_u.search = q_search{}; // the largest argument: all others are empty too
        EXPECT_EQ(Q_WRONG_VERSION, send(request)->answer.status) << operation;
    }
}

TEST_F(ServiceTest, UnknownOperationIsAnsweredWhateverFollows) {
    greet();
    for (const std::string& rest : {std::string(), std::string("abc"), std::string(64, '\xFF')}) {
        const auto taken = sendRaw(std::string("\0\0\0\x63", 4) + rest);
        EXPECT_EQ(Q_UNKNOWN_OPERATION, taken->answer.status);
        EXPECT_EQ("operation 99 is unknown to version 1", taken->failure());
    }
}

TEST_F(ServiceTest, GarbageIsABadRequestAndTheConnectionGoesOn) {
    greet();
    const std::vector<std::string> frames = {
        "",
        "a",
        std::string("\0\0\0\1", 4),                                 // setting without its name
        std::string("\0\0\0\1\xFF\xFF\xFF\xFF", 8),                 // huge name
        std::string("\0\0\0\1\0\0\0\1", 8),                         // name missing
        std::string("\0\0\0\1\0\0\0\0xxxx", 12),                    // left over
        std::string("\0\0\0\3\0\0\0\0\0\0\0\0\x7F\xFF\xFF\xFF", 16) // huge list of attributes
    };
    for (const std::string& frame : frames) {
        const auto taken = sendRaw(frame);
        EXPECT_EQ(Q_BAD_REQUEST, taken->answer.status) << frame.size();
        EXPECT_EQ(0U, taken->failure().find("malformed request")) << taken->failure();
    }
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
}

TEST_F(ServiceTest, SettingsComeFromTheZone) {
    greet();
    q_request request = requestFor(Q_SETTING);
    const std::string name = tessa::SETTING_ZONE_NAME;
    request.q_request_u.setting = messages::bytes(name);
    m_directory->away = true; // settings are told all the same
    auto taken = send(request);
    ASSERT_EQ(Q_OK, taken->answer.status);
    EXPECT_EQ(ZONE, messages::text(taken->result().setting));
    request.q_request_u.setting = messages::bytes("nonsense");
    EXPECT_EQ(Q_NOT_FOUND, send(request)->answer.status);
}

TEST_F(ServiceTest, OnlyTheHierarchyIsSystemInformation) {
    greet();
    q_request request = requestFor(Q_SYSTEM_INFO);
    request.q_request_u.info_code = tessa::SYSTEM_INFO_ZONE_HIERARCHY;
    EXPECT_EQ(Q_OK, send(request)->answer.status);
    request.q_request_u.info_code = 65;
    const auto taken = send(request);
    EXPECT_EQ(Q_NOT_FOUND, taken->answer.status);
    EXPECT_EQ("no system information has the code 65", taken->failure());
}

class FetchTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        greet();
        ADObject zone;
        zone.set("_dn", ZONE);
        zone.set("cn", "zoneA");
        zone.set("objectGUID", std::string(16, 'g'));
        zone.set("extensionName", std::vector<std::string>{"other=x", "nisdomain=nis.example"});
        m_directory->byName[ZONE] = zone;
    }
    std::unique_ptr<Taken> fetch(const std::string& dn, const std::vector<std::string>& names) {
        std::vector<q_bytes> attributes;
        for (const std::string& name : names) {
            attributes.push_back(messages::bytes(name));
        }
        q_request request = requestFor(Q_FETCH);
        q_fetch wanted{};
        wanted.dn = messages::bytes(dn);
        wanted.attributes.attributes_len = static_cast<u_int>(attributes.size());
        wanted.attributes.attributes_val = attributes.data();
        wanted.all_attributes = names.empty() ? TRUE : FALSE;
        request.q_request_u.fetch = wanted;
        return send(request);
    }
};

TEST_F(FetchTest, ObjectArrivesWithItsAttributes) {
    const auto taken = fetch(ZONE, {});
    ASSERT_EQ(Q_OK, taken->answer.status);
    const ADObject object = messages::fromMessage(taken->result().object);
    EXPECT_EQ("zoneA", object["cn"].asString());
    EXPECT_EQ(std::string(16, 'g'), object.guid());
}

TEST_F(FetchTest, NisDomainIsMadeFromTheExtensionName) {
    const auto taken = fetch(ZONE, {});
    EXPECT_EQ("nis.example",
              messages::fromMessage(taken->result().object)["_nisdomain"].asString());
    fetch(ZONE, {"cn", "_NISDomain"});
    EXPECT_EQ((std::vector<std::string>{"cn", "_NISDomain", "extensionName"}),
              m_directory->lastAttributes);
    m_directory->byName[ZONE].set("extensionName", "other=x");
    const auto without = fetch(ZONE, {});
    EXPECT_FALSE(
        messages::fromMessage(without->result().object).attributeExists("_nisdomain", false));
}

TEST_F(FetchTest, FailuresAreAnswersWithTheirReason) {
    const auto missing = fetch("CN=none", {});
    EXPECT_EQ(Q_NOT_FOUND, missing->answer.status);
    EXPECT_EQ("there is no 'CN=none'", missing->failure());
    m_directory->away = true;
    const auto away = fetch("CN=none", {});
    EXPECT_EQ(Q_UNAVAILABLE, away->answer.status);
    EXPECT_EQ("controller away", away->failure());
}

TEST_F(FetchTest, ZoneThatWasSeenIsToldWhileTheDirectoryIsAway) {
    m_backend.get()->zones->refresh();
    m_directory->away = true;
    const auto taken = fetch(ZONE, {});
    ASSERT_EQ(Q_OK, taken->answer.status);
    EXPECT_EQ("nis.example",
              messages::fromMessage(taken->result().object)["_nisdomain"].asString());
    EXPECT_EQ(Q_UNAVAILABLE, fetch("CN=other,DC=com", {})->answer.status);
}

TEST_F(FetchTest, ObjectLargerThanAMessageIsAClearAnswer) {
    ADObject huge;
    huge.set("member", std::string(twine::MAX_FRAME, 'm'));
    m_directory->byName["CN=huge"] = huge;
    const auto taken = fetch("CN=huge", {});
    EXPECT_EQ(Q_BAD_REQUEST, taken->answer.status);
    EXPECT_NE(std::string::npos, taken->failure().find("larger than a message may be"));
    EXPECT_EQ(Q_OK, fetch(ZONE, {})->answer.status);
}

TEST_F(FetchTest, ReasonThatQuotesAHugeRequestIsCut) {
    const auto taken = fetch(std::string(twine::MAX_FRAME - 100, 'x'), {});
    EXPECT_EQ(Q_NOT_FOUND, taken->answer.status);
    EXPECT_LE(taken->frame.size(), 5000U);
}

class SearchTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        greet();
    }
    // The names of all objects, in order; fails the test unless every page is within its bounds.
    std::vector<std::string> drain(std::unique_ptr<Taken> page, std::size_t* pages = nullptr) {
        std::vector<std::string> names;
        for (;;) {
            EXPECT_EQ(Q_OK, page->answer.status) << page->failure();
            if (page->answer.status != Q_OK) {
                return names;
            }
            const q_page& content = page->result().page;
            EXPECT_LE(content.objects.objects_len, PAGE_ITEMS);
            for (u_int at = 0; at < content.objects.objects_len; ++at) {
                names.push_back(
                    messages::fromMessage(content.objects.objects_val[at])["cn"].asString());
            }
            if (pages != nullptr) {
                ++*pages;
            }
            if (content.cursor == 0) {
                return names;
            }
            page = next(content.cursor);
        }
    }
    static std::vector<std::string> numbers(std::size_t count) {
        std::vector<std::string> names;
        for (std::size_t number = 0; number < count; ++number) {
            names.push_back(std::to_string(number));
        }
        return names;
    }
};

TEST_F(SearchTest, NothingFoundIsOneEmptyPage) {
    const auto taken = search();
    ASSERT_EQ(Q_OK, taken->answer.status);
    EXPECT_EQ(0U, taken->result().page.cursor);
    EXPECT_EQ(0U, taken->result().page.objects.objects_len);
}

TEST_F(SearchTest, ManyObjectsArriveCompleteAndInOrder) {
    for (const std::size_t count : {1UL, 255UL, 256UL, 257UL, 1256UL, 5000UL}) {
        m_directory->objects.clear();
        addObjects(count);
        EXPECT_EQ(numbers(count), drain(search())) << count;
    }
}

TEST_F(SearchTest, PagesAreBoundedInBytes) {
    addObjects(40, 300 * 1024);
    std::size_t pages = 0;
    EXPECT_EQ(numbers(40), drain(search(), &pages));
    EXPECT_GE(pages, 40U * 300 / 1024);
    const auto first = search();
    EXPECT_LE(first->frame.size(), PAGE_BYTES + 1024);
}

TEST_F(SearchTest, LargeObjectTravelsAlone) {
    addObjects(3);
    m_directory->objects[1].set("description", std::string(5UL * 1024 * 1024, 'v'));
    EXPECT_EQ(numbers(3), drain(search()));
}

TEST_F(SearchTest, ObjectLargerThanAMessageEndsTheSearchWithItsName) {
    addObjects(3);
    m_directory->objects[2].set("description", std::string(twine::MAX_FRAME, 'v'));
    m_directory->objects[2].set("_dn", "CN=two");
    const auto first = search();
    ASSERT_EQ(Q_OK, first->answer.status);
    EXPECT_EQ(2U, first->result().page.objects.objects_len);
    const auto taken = next(first->result().page.cursor);
    ASSERT_EQ(Q_BAD_REQUEST, taken->answer.status);
    EXPECT_NE(std::string::npos, taken->failure().find("'CN=two'")) << taken->failure();
    EXPECT_EQ(0, m_directory->openCursors);
}

TEST_F(SearchTest, ArgumentsReachTheDirectory) {
    search(tessa::SCOPE_SUBTREE, "(cn=x)");
    EXPECT_EQ("(cn=x)", m_directory->lastSearch.filter);
    EXPECT_EQ(tessa::SCOPE_SUBTREE, m_directory->lastSearch.scope);
}

TEST_F(SearchTest, WrongScopeAndFilterAreBadRequests) {
    EXPECT_EQ(Q_BAD_REQUEST, search(3)->answer.status);
    EXPECT_EQ(Q_BAD_REQUEST, search(-1)->answer.status);
    const auto taken = search(tessa::SCOPE_BASE, "(");
    EXPECT_EQ(Q_BAD_REQUEST, taken->answer.status);
    EXPECT_EQ("malformed filter '('", taken->failure());
}

TEST_F(SearchTest, OpenSearchesAreBoundedAndEndsMakeRoom) {
    addObjects(600);
    std::vector<unsigned> cursors;
    for (std::size_t number = 0; number < Service::MAX_SEARCHES; ++number) {
        const auto taken = search();
        ASSERT_EQ(Q_OK, taken->answer.status);
        cursors.push_back(taken->result().page.cursor);
    }
    const auto refused = search();
    EXPECT_EQ(Q_BAD_REQUEST, refused->answer.status);
    EXPECT_EQ("already 16 searches are open on this connection", refused->failure());
    q_request end = requestFor(Q_SEARCH_END);
    end.q_request_u.end_cursor = cursors[3];
    EXPECT_EQ(Q_OK, send(end)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(end)->answer.status);
    EXPECT_EQ(Q_OK, search()->answer.status);
    EXPECT_EQ(static_cast<int>(Service::MAX_SEARCHES), m_directory->openCursors);
}

TEST_F(SearchTest, SearchThatEndedIsClosedByItself) {
    addObjects(300);
    const auto first = search();
    const unsigned cursor = first->result().page.cursor;
    ASSERT_NE(0U, cursor);
    EXPECT_EQ(0U, next(cursor)->result().page.cursor);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, next(cursor)->answer.status);
    EXPECT_EQ(0, m_directory->openCursors);
}

TEST_F(SearchTest, UnknownCursorIsSaid) {
    const auto taken = next(77);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, taken->answer.status);
    EXPECT_EQ("no search 77 is open", taken->failure());
}

TEST_F(SearchTest, SearchThatFailsInTheMiddleIsClosed) {
    addObjects(3000);
    m_directory->pagesBeforeFailure = 1;
    const auto first = search();
    ASSERT_EQ(Q_OK, first->answer.status);
    const unsigned cursor = first->result().page.cursor;
    const auto second = next(cursor);
    EXPECT_EQ(Q_UNAVAILABLE, second->answer.status);
    EXPECT_EQ("controller away in the middle", second->failure());
    EXPECT_EQ(Q_NO_SUCH_CURSOR, next(cursor)->answer.status);
    EXPECT_EQ(0, m_directory->openCursors);
}

TEST_F(SearchTest, RunningSearchKeepsItsDirectoryAfterAChange) {
    addObjects(300);
    const auto first = search();
    auto other = std::make_shared<MemoryDirectory>();
    auto backend = std::make_shared<Backend>();
    backend->directory = other;
    backend->zones = std::make_unique<Zones>(*other, ZONE, "host1", m_folder + "/zones");
    m_backend.set(std::move(backend));
    EXPECT_EQ(44U, next(first->result().page.cursor)->result().page.objects.objects_len);
    EXPECT_EQ(0U, search()->result().page.objects.objects_len); // asks the new one
}

TEST_F(AccountsOfServiceTest, UsersComeInPages) {
    addUsers(2500);
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
    std::size_t seen = 0;
    bool more = true;
    while (more) {
        const auto taken = send(Q_USERS_NEXT);
        ASSERT_EQ(Q_OK, taken->answer.status);
        const q_user_page& page = taken->result().users;
        EXPECT_LE(page.users.users_len, PAGE_ITEMS);
        for (u_int at = 0; at < page.users.users_len; ++at) {
            EXPECT_EQ("u" + std::to_string(seen), messages::text(page.users.users_val[at].name));
            ++seen;
        }
        more = page.more != FALSE;
    }
    EXPECT_EQ(2500U, seen);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(Q_USERS_NEXT)->answer.status);
}

TEST_F(AccountsOfServiceTest, FlagsReachTheDirectory) {
    q_request request = requestFor(Q_GROUPS_START);
    request.q_request_u.group_flags = tessa::UNIX_ONLY | tessa::GROUP_MEMBERSHIP;
    EXPECT_EQ(Q_OK, send(request)->answer.status);
    EXPECT_EQ(tessa::UNIX_ONLY | tessa::GROUP_MEMBERSHIP, m_directory->lastFlags);
}

TEST_F(AccountsOfServiceTest, EnumerationBeginsAnewWithEachStart) {
    addUsers(600);
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
    EXPECT_EQ(Q_OK, send(Q_USERS_NEXT)->answer.status);
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
    EXPECT_EQ(1, m_directory->openCursors);
    const auto taken = send(Q_USERS_NEXT);
    EXPECT_EQ("u0", messages::text(taken->result().users.users.users_val[0].name));
    EXPECT_EQ(Q_OK, send(Q_USERS_END)->answer.status);
    EXPECT_EQ(Q_OK, send(Q_USERS_END)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(Q_USERS_NEXT)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(Q_GROUPS_NEXT)->answer.status);
}

TEST_F(AccountsOfServiceTest, EnumerationThatFailsIsClosed) {
    addUsers(600);
    m_directory->pagesBeforeFailure = 1;
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
    EXPECT_EQ(Q_OK, send(Q_USERS_NEXT)->answer.status);
    EXPECT_EQ(Q_UNAVAILABLE, send(Q_USERS_NEXT)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(Q_USERS_NEXT)->answer.status);
    m_directory->away = true;
    EXPECT_EQ(Q_UNAVAILABLE, send(Q_USERS_START)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(Q_USERS_NEXT)->answer.status);
}

TEST_F(AccountsOfServiceTest, SingleAccountsAreFound) {
    addUsers(3);
    addGroup("staff", 2);
    q_request request = requestFor(Q_USER);
    request.q_request_u.user_name = messages::bytes("u2");
    EXPECT_EQ(2U, send(request)->result().user.uid);
    request.q_request_u.user_name = messages::bytes("nobody");
    EXPECT_EQ(Q_NOT_FOUND, send(request)->answer.status);
    request = requestFor(Q_GROUP);
    request.q_request_u.group_name = messages::bytes("staff");
    const auto taken = send(request);
    EXPECT_EQ(2U, taken->result().group.members.members_len);
    EXPECT_FALSE(taken->result().group.continues);
}

TEST_F(AccountsOfServiceTest, SingleGroupLargerThanAMessageIsAClearAnswer) {
    addGroup("huge", 250000, 40);
    q_request request = requestFor(Q_GROUP);
    request.q_request_u.group_name = messages::bytes("huge");
    const auto taken = send(request);
    EXPECT_EQ(Q_BAD_REQUEST, taken->answer.status);
    EXPECT_NE(std::string::npos, taken->failure().find("larger than a message"));
}

// Service and session together, over a socket.
class RoundTripTest : public AccountsOfServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        twine::ServerOptions options;
        options.socketPath = m_folder + "/daemon";
        options.converse = [this](const twine::Peer&) {
            return std::make_unique<Service>(m_backend, m_health, m_reporter, "the test");
        };
        m_server = std::make_unique<twine::Server>(std::move(options));
        m_server->start();
        m_session = std::make_unique<LocalRpcSession>(m_folder + "/daemon", true, true);
    }
    void TearDown() override {
        m_session.reset();
        m_server.reset();
        ServiceTest::TearDown();
    }

    std::unique_ptr<twine::Server> m_server;
    std::unique_ptr<LocalRpcSession> m_session;
};

TEST_F(RoundTripTest, GroupsOfAnySizeArriveWhole) {
    addGroup("a", 3);
    addGroup("b", 0);
    addGroup("c", 250000, 40); // larger than a frame
    addGroup("d", 70000, 8);
    addGroup("e", 1);
    m_session->startListGroup(false);
    for (const tessa::GroupRecord& expected : m_directory->groupRecords) {
        const auto group =
            m_session->getGroup2(tessa::NEXT_ENTRY, tessa::UNIX_ONLY | tessa::GROUP_MEMBERSHIP);
        EXPECT_EQ(expected.name, group.name);
        EXPECT_TRUE(expected.members == group.members) << group.name;
    }
    EXPECT_THROW(m_session->getGroup2(tessa::NEXT_ENTRY, tessa::UNIX_ONLY),
                 tessa::EndOfListException);
    m_session->endListGroup();
}

TEST_F(RoundTripTest, AbandonedSearchesNeverFillTheTable) {
    addObjects(600);
    for (int turn = 0; turn < 100; ++turn) {
        ADObject object;
        const auto list = m_session->ldapPagedSearch("", "(a=b)", "DC=x", {}, 1, 0, true);
        ASSERT_TRUE(list->next(object));
    }
    EXPECT_LE(m_directory->openCursors, 2);
}

TEST_F(RoundTripTest, SearchesSideBySideKeepTheirPlaces) {
    addObjects(3000);
    const auto one = m_session->ldapPagedSearch("", "(a=b)", "DC=x", {}, 1, 0, true);
    const auto two = m_session->ldapPagedSearch("", "(a=b)", "DC=x", {}, 1, 0, true);
    for (int number = 0; number < 3000; ++number) {
        ADObject object;
        ASSERT_TRUE(one->next(object));
        ASSERT_EQ(std::to_string(number), object["cn"].asString());
        ASSERT_TRUE(two->next(object));
        ASSERT_EQ(std::to_string(number), object["cn"].asString());
    }
}

TEST_F(RoundTripTest, EverythingOpenGoesWithTheConnection) {
    addObjects(600);
    const auto list = m_session->ldapPagedSearch("", "(a=b)", "DC=x", {}, 1, 0, true);
    m_server->stop();
    EXPECT_EQ(0, m_directory->openCursors);
}

} // namespace
