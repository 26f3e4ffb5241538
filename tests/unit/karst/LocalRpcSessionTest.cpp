#include "ScriptedDaemon.h"

#include <karst/Exceptions.h>
#include <karst/LocalRpcSession.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

using namespace tessa;
using tessa::testing::ScriptedDaemon;
using Operations = std::vector<unsigned>;

// Raised by a script: the connection ends without an answer.
struct Break : std::runtime_error {
    Break() : std::runtime_error("broken by the test") {}
};

class LocalRpcSessionTest : public ::testing::Test {
protected:
    boost::shared_ptr<ADObjectList> search(LocalRpcSession& session) {
        return session.ldapPagedSearch("d", "(a=b)", "DC=x", {"cn"}, SCOPE_ONE_LEVEL, 0, false);
    }
    static std::vector<std::string> drain(ADObjectList& list) {
        std::vector<std::string> names;
        ADObject object;
        while (list.next(object)) {
            names.push_back(object["cn"]);
        }
        return names;
    }
    // Text of the exception of that type; anything else fails the test.
    template <typename Type, typename Call> static std::string raised(const Call& call) {
        try {
            call();
        } catch (const Type& error) {
            return error.what();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "another exception: " << error.what();
            return {};
        }
        ADD_FAILURE() << "no exception";
        return {};
    }
    static bool contains(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }

    ScriptedDaemon m_daemon;
};

TEST_F(LocalRpcSessionTest, WithoutDaemonTheSessionCannotBeReached) {
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_TRUE(
        contains(raised<IOException>([&] { session.loadSetting("zonename"); }), m_daemon.socket()));
    EXPECT_THROW(LocalRpcSession(m_daemon.socket(), true, true), IOException);
    m_daemon.start([](const q_request& r) { return ScriptedDaemon::setting(r, "v"); });
    EXPECT_EQ("v", session.loadSetting("zonename"));
}

TEST_F(LocalRpcSessionTest, ConnectsOnTheFirstCallOnly) {
    m_daemon.start([](const q_request& r) { return ScriptedDaemon::setting(r, "v"); });
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_EQ(0U, m_daemon.connections());
    session.loadSetting("a");
    session.loadSetting("b");
    EXPECT_EQ(1U, m_daemon.connections());
    LocalRpcSession eager(m_daemon.socket(), true, true);
    EXPECT_EQ(2U, m_daemon.connections());
}

TEST_F(LocalRpcSessionTest, FetchCarriesItsArgumentsAndTheObject) {
    m_daemon.start([](const q_request& request) {
        const q_fetch& fetch = request.q_request_u.fetch;
        messages::Arena arena;
        ADObject object;
        object.set("domain", messages::text(fetch.domain));
        object.set("dn", messages::text(fetch.dn));
        object.set("all", fetch.all_attributes != FALSE ? "yes" : "no");
        object.set("wanted", messages::fromMessage(fetch.attributes.attributes_val,
                                                   fetch.attributes.attributes_len));
        object.set("binary", std::string("a\0b", 3));
        q_answer answer = ScriptedDaemon::ok(request);
        answer.q_answer_u.result.q_result_u.object = messages::toMessage(object, arena);
        return messages::encode(answer);
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    const ADObject object = session.ldapFetch("example.com", "CN=x", {"cn", "description"}, false);
    EXPECT_EQ("example.com", object["domain"].asString());
    EXPECT_EQ("CN=x", object["dn"].asString());
    EXPECT_EQ("no", object["all"].asString());
    EXPECT_EQ((std::vector<std::string>{"cn", "description"}), object["wanted"].values());
    EXPECT_EQ(std::string("a\0b", 3), object["binary"].asString());
    // No names means all attributes.
    EXPECT_EQ("yes", session.ldapFetch("d", "", {}, false)["all"].asString());
    EXPECT_EQ("yes", session.ldapFetch("d", "", {"cn"}, true)["all"].asString());
}

TEST_F(LocalRpcSessionTest, EachStatusHasItsException) {
    q_status status = Q_OK;
    m_daemon.start([&](const q_request&) { return ScriptedDaemon::failure(status, "the reason"); });
    LocalRpcSession session(m_daemon.socket(), false, true);
    const auto call = [&] { session.loadSetting("x"); };
    status = Q_NOT_FOUND;
    EXPECT_EQ("the reason", raised<NotFoundException>(call));
    status = Q_UNAVAILABLE;
    EXPECT_EQ("the reason", raised<IPCException>(call));
    status = Q_BAD_REQUEST;
    EXPECT_EQ("the reason", raised<BadDataException>(call));
    status = Q_NO_SUCH_CURSOR;
    EXPECT_TRUE(contains(raised<IPCException>(call), "the reason"));
    status = Q_UNKNOWN_OPERATION;
    EXPECT_TRUE(contains(raised<IPCException>(call), "another version"));
    status = Q_WRONG_VERSION;
    EXPECT_TRUE(contains(raised<IPCException>(call), "does not speak version 1"));
    EXPECT_EQ(1U, m_daemon.connections()); // a refusal is no reason to connect again
}

TEST_F(LocalRpcSessionTest, FailureWithoutTextSaysWhatWasAsked) {
    m_daemon.start([](const q_request&) { return ScriptedDaemon::failure(Q_UNAVAILABLE, ""); });
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_TRUE(contains(raised<IPCException>([&] { session.getSystemInfo(64); }), "operation 2"));
}

TEST_F(LocalRpcSessionTest, UnknownStatusIsBadData) {
    m_daemon.start([](const q_request&) { return ScriptedDaemon::failure(99, "?"); });
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_TRUE(contains(raised<BadDataException>([&] { session.loadSetting("x"); }), "99"));
}

TEST_F(LocalRpcSessionTest, DaemonOfAnotherVersionIsRefusedWithBothVersions) {
    m_daemon.start(
        [](const q_request& request) {
            q_answer answer = ScriptedDaemon::ok(request);
            answer.q_answer_u.result.q_result_u.protocol = 2;
            return messages::encode(answer);
        },
        false);
    LocalRpcSession session(m_daemon.socket(), false, true);
    const std::string text = raised<IPCException>([&] { session.loadSetting("x"); });
    EXPECT_TRUE(contains(text, "version 2")) << text;
    EXPECT_TRUE(contains(text, "version 1")) << text;
    EXPECT_TRUE(m_daemon.operations().empty());
    EXPECT_THROW(session.loadSetting("x"), IPCException); // and again, not silently accepted
}

TEST_F(LocalRpcSessionTest, DaemonThatRefusesOurVersionSaysSo) {
    m_daemon.start(
        [](const q_request&) { return ScriptedDaemon::failure(Q_WRONG_VERSION, "I speak 7"); },
        false);
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_TRUE(contains(raised<IPCException>([&] { session.loadSetting("x"); }), "I speak 7"));
}

TEST_F(LocalRpcSessionTest, MalformedAnswersAreBadDataAndEndTheConnection) {
    const auto words = [](std::initializer_list<std::uint32_t> list) {
        std::string frame;
        for (const std::uint32_t word : list) {
            for (const unsigned shift : {24U, 16U, 8U, 0U}) {
                frame += static_cast<char>(word >> shift & 0xFFU);
            }
        }
        return frame;
    };
    const std::vector<std::string> frames = {
        "",
        "abc",
        words({Q_OK}),
        words({Q_OK, Q_SETTING}),
        words({Q_OK, Q_SETTING, 5}) + "abc",             // shorter than announced
        words({Q_OK, Q_SETTING, 0xFFFFFFFF}),            // huge text
        words({Q_OK, Q_SETTING, 0xFFFFFFFD}) + "abcd",   // padding must not wrap around
        words({Q_OK, Q_SETTING, 0, 0}),                  // something left over
        words({Q_OK, Q_SYSTEM_INFO, 0}),                 // answer to another question
        words({Q_OK, Q_FETCH, 0xFFFFFFFF, 0, 0}),        // huge array
        words({Q_OK, Q_SEARCH, 1, 0x40000000, 0, 0, 0}), // huge array
        words({Q_NOT_FOUND}),
        words({Q_NOT_FOUND, 10}),
    };
    std::string frame;
    m_daemon.start([&](const q_request&) { return frame; });
    LocalRpcSession session(m_daemon.socket(), false, true);
    unsigned connections = 0;
    for (const std::string& wrong : frames) {
        frame = wrong;
        EXPECT_THROW(session.loadSetting("x"), BadDataException) << connections;
        EXPECT_EQ(++connections, m_daemon.connections());
    }
    frame = words({Q_OK, Q_SETTING, 1}) + std::string("v\0\0\0", 4);
    EXPECT_EQ("v", session.loadSetting("x"));
}

TEST_F(LocalRpcSessionTest, BrokenCallFailsAndTheNextConnectsAgain) {
    std::atomic<bool> broken{true};
    m_daemon.start([&](const q_request& request) {
        if (broken) {
            throw Break();
        }
        return ScriptedDaemon::setting(request, "v");
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_THROW(session.loadSetting("x"), IPCException);
    broken = false;
    EXPECT_EQ("v", session.loadSetting("x"));
    EXPECT_EQ(2U, m_daemon.connections());
}

TEST_F(LocalRpcSessionTest, DaemonThatRestartedWhileNobodyAskedIsNotNoticed) {
    const auto script = [](const q_request& r) { return ScriptedDaemon::setting(r, "v"); };
    m_daemon.start(script);
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_EQ("v", session.loadSetting("x"));
    m_daemon.start(script);
    EXPECT_EQ("v", session.loadSetting("x"));
}

TEST_F(LocalRpcSessionTest, WithoutReconnectABrokenSessionStaysBroken) {
    const auto script = [](const q_request& r) { return ScriptedDaemon::setting(r, "v"); };
    m_daemon.start(script);
    LocalRpcSession session(m_daemon.socket(), false, false);
    EXPECT_EQ("v", session.loadSetting("x"));
    m_daemon.start(script);
    EXPECT_THROW(session.loadSetting("x"), IPCException);
    EXPECT_THROW(session.loadSetting("x"), IPCException);
}

TEST_F(LocalRpcSessionTest, DaemonThatNeverAnswersCostsOnlyTheDeadline) {
    // The daemon's threads may still wait for it when this test is over.
    const auto silence = std::make_shared<std::mutex>();
    std::unique_lock hold(*silence);
    m_daemon.start([silence](const q_request& request) {
        const std::lock_guard wait(*silence);
        return request.operation == Q_SETTING ? ScriptedDaemon::setting(request, "late")
                                              : ScriptedDaemon::page(request, 0, {});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.setDeadlines(std::chrono::milliseconds(50), std::chrono::milliseconds(50));
    EXPECT_TRUE(contains(raised<IPCException>([&] { session.loadSetting("x"); }), "deadline"));
    EXPECT_THROW(search(session), IPCException);
    hold.unlock();
    session.setDeadlines(std::chrono::seconds(20), std::chrono::seconds(20));
    EXPECT_EQ("late", session.loadSetting("x")); // on a connection of its own, not a late answer
}

// The daemon may be making the next page of the search when it is given up.
TEST_F(LocalRpcSessionTest, EndOfASearchHasAsLongAsAPage) {
    unsigned cursor = 0;
    m_daemon.start([&cursor](const q_request& request) {
        switch (request.operation) {
        case Q_SEARCH:
            return ScriptedDaemon::page(request, ++cursor, {"first"});
        case Q_SEARCH_END:
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            return ScriptedDaemon::done(request);
        default:
            return ScriptedDaemon::page(request, 0, {"last"});
        }
    });
    LocalRpcSession session(m_daemon.socket(), true, true);
    auto givenUp = search(session);
    const auto list = search(session);
    session.setDeadlines(std::chrono::milliseconds(50), std::chrono::seconds(20));
    givenUp.reset();
    EXPECT_EQ((std::vector<std::string>{"first", "last"}), drain(*list));
    EXPECT_EQ((Operations{Q_SEARCH, Q_SEARCH, Q_SEARCH_END, Q_SEARCH_NEXT}), m_daemon.operations());
    EXPECT_EQ(1U, m_daemon.connections());
}

TEST_F(LocalRpcSessionTest, SettingThatIsEmptyIsNoError) {
    m_daemon.start([](const q_request& r) { return ScriptedDaemon::setting(r, ""); });
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_EQ("", session.loadSetting("x"));
}

TEST_F(LocalRpcSessionTest, SearchCarriesItsArguments) {
    m_daemon.start([](const q_request& request) {
        const q_search& search = request.q_request_u.search;
        return ScriptedDaemon::page(request, 0,
                                    {messages::text(search.domain), messages::text(search.filter),
                                     messages::text(search.base), std::to_string(search.scope),
                                     std::to_string(search.size_limit),
                                     search.all_attributes != FALSE ? "all" : "some",
                                     messages::text(search.attributes.attributes_val[0])});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    const auto list = session.ldapSearch("d", "(a=b)", "DC=x", {"cn"}, SCOPE_SUBTREE, 9, false);
    EXPECT_EQ((std::vector<std::string>{"d", "(a=b)", "DC=x", "2", "9", "some", "cn"}),
              drain(*list));
    EXPECT_THROW(session.ldapSearch("d", "", "", {}, 0, -1, false), BadDataException);
}

TEST_F(LocalRpcSessionTest, PagesAreFetchedOnlyWhenTheyAreNeeded) {
    m_daemon.start([](const q_request& request) {
        switch (request.operation) {
        case Q_SEARCH:
            return ScriptedDaemon::page(request, 5, {"a", "b"});
        case Q_SEARCH_NEXT:
            return request.q_request_u.next_cursor == 5 ? ScriptedDaemon::page(request, 6, {})
                                                        : ScriptedDaemon::page(request, 0, {"c"});
        default:
            return ScriptedDaemon::done(request);
        }
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    const auto list = search(session);
    ADObject object;
    EXPECT_TRUE(list->next(object));
    EXPECT_TRUE(list->next(object));
    EXPECT_EQ((Operations{Q_SEARCH}), m_daemon.operations());
    EXPECT_EQ((std::vector<std::string>{"c"}), drain(*list));
    EXPECT_EQ((Operations{Q_SEARCH, Q_SEARCH_NEXT, Q_SEARCH_NEXT}), m_daemon.operations());
    EXPECT_FALSE(list->next(object)); // and stays at its end
}

TEST_F(LocalRpcSessionTest, SearchIsLostWithItsConnection) {
    std::atomic<bool> broken{true};
    m_daemon.start([&](const q_request& request) {
        if (request.operation == Q_SEARCH_NEXT && broken) {
            throw Break();
        }
        return request.operation == Q_SETTING ? ScriptedDaemon::setting(request, "v")
                                              : ScriptedDaemon::page(request, 5, {"a"});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    const auto list = search(session);
    ADObject object;
    EXPECT_TRUE(list->next(object));
    EXPECT_THROW(list->next(object), IPCException);
    broken = false;
    EXPECT_THROW(list->next(object), IPCException); // never an end
    EXPECT_EQ("v", session.loadSetting("x"));       // the session itself goes on
    EXPECT_TRUE(contains(raised<IPCException>([&] { list->next(object); }), "lost"));
    EXPECT_EQ((Operations{Q_SEARCH, Q_SEARCH_NEXT, Q_SETTING}), m_daemon.operations());
}

TEST_F(LocalRpcSessionTest, SearchOfARestartedDaemonIsLost) {
    const auto script = [](const q_request& r) { return ScriptedDaemon::page(r, 5, {"a"}); };
    m_daemon.start(script);
    LocalRpcSession session(m_daemon.socket(), false, true);
    const auto list = search(session);
    ADObject object;
    EXPECT_TRUE(list->next(object));
    m_daemon.start(script);
    // The new daemon has a cursor 5 as well: it must not be asked.
    EXPECT_THROW(list->next(object), IPCException);
    const auto other = search(session);
    EXPECT_THROW(list->next(object), IPCException);
    EXPECT_EQ((Operations{Q_SEARCH, Q_SEARCH}), m_daemon.operations());
}

TEST_F(LocalRpcSessionTest, DirectoryThatFailsInTheMiddleOfASearchIsNoEnd) {
    m_daemon.start([](const q_request& request) {
        return request.operation == Q_SEARCH
                   ? ScriptedDaemon::page(request, 5, {"a"})
                   : ScriptedDaemon::failure(Q_UNAVAILABLE, "controller away");
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    const auto list = search(session);
    EXPECT_EQ("controller away", raised<IPCException>([&] { drain(*list); }));
    EXPECT_EQ("controller away", raised<IPCException>([&] { drain(*list); }));
}

TEST_F(LocalRpcSessionTest, AbandonedSearchIsEndedBeforeTheNextCall) {
    std::vector<unsigned> ended;
    m_daemon.start([&](const q_request& request) {
        if (request.operation == Q_SEARCH_END) {
            ended.push_back(request.q_request_u.end_cursor);
            return ScriptedDaemon::failure(Q_NO_SUCH_CURSOR, "gone already");
        }
        return request.operation == Q_SETTING ? ScriptedDaemon::setting(request, "v")
                                              : ScriptedDaemon::page(request, 5, {"a"});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    search(session);
    EXPECT_EQ((Operations{Q_SEARCH}), m_daemon.operations());
    EXPECT_EQ("v", session.loadSetting("x"));
    EXPECT_EQ((Operations{Q_SEARCH, Q_SEARCH_END, Q_SETTING}), m_daemon.operations());
    EXPECT_EQ((std::vector<unsigned>{5}), ended);
    EXPECT_EQ("v", session.loadSetting("x"));
    EXPECT_EQ(1U, ended.size());
}

TEST_F(LocalRpcSessionTest, SearchThatRanToItsEndIsNotEndedAgain) {
    m_daemon.start([](const q_request& request) {
        return request.operation == Q_SETTING ? ScriptedDaemon::setting(request, "v")
                                              : ScriptedDaemon::page(request, 0, {"a"});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    drain(*search(session));
    search(session); // of one page: nothing is open although nobody read it
    session.loadSetting("x");
    EXPECT_EQ((Operations{Q_SEARCH, Q_SEARCH, Q_SETTING}), m_daemon.operations());
}

TEST_F(LocalRpcSessionTest, SearchAbandonedOnALostConnectionIsNotEndedOnTheNext) {
    const auto script = [](const q_request& request) {
        return request.operation == Q_SETTING ? ScriptedDaemon::setting(request, "v")
                                              : ScriptedDaemon::page(request, 5, {"a"});
    };
    m_daemon.start(script);
    LocalRpcSession session(m_daemon.socket(), false, true);
    auto list = search(session);
    auto other = search(session);
    list.reset();
    m_daemon.start(script);
    session.loadSetting("x");
    other.reset();
    session.loadSetting("x");
    EXPECT_EQ((Operations{Q_SEARCH, Q_SEARCH, Q_SETTING, Q_SETTING}), m_daemon.operations());
}

TEST_F(LocalRpcSessionTest, ListMayOutliveItsSession) {
    m_daemon.start([](const q_request& request) {
        return ScriptedDaemon::page(request, request.operation == Q_SEARCH ? 5 : 0, {"a"});
    });
    boost::shared_ptr<ADObjectList> list;
    {
        LocalRpcSession session(m_daemon.socket(), false, true);
        list = search(session);
    }
    EXPECT_EQ((std::vector<std::string>{"a", "a"}), drain(*list));
}

TEST_F(LocalRpcSessionTest, UserCarriesAllItsFields) {
    m_daemon.start([](const q_request& request) {
        UserRecord user;
        user.name = messages::text(request.q_request_u.user_name);
        user.uid = 0xFFFFFFFEU;
        user.gid = 100;
        user.gecos = "G";
        user.homeDirectory = "/home/u";
        user.shell = "/bin/sh";
        user.passwordHash = "hash";
        user.accountControl = 0x80000200U;
        user.enabled = false;
        user.passwordTime = 133000000000000000LL;
        user.passwordExpiry = std::numeric_limits<std::int64_t>::min();
        user.accountExpires = std::numeric_limits<std::int64_t>::max();
        q_answer answer = ScriptedDaemon::ok(request);
        answer.q_answer_u.result.q_result_u.user = messages::toMessage(user);
        return messages::encode(answer);
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    const UserRecord user = session.getUser2("jo", UNIX_ONLY);
    EXPECT_EQ("jo", user.name);
    EXPECT_EQ(0xFFFFFFFEU, user.uid);
    EXPECT_EQ(100U, user.gid);
    EXPECT_EQ("G", user.gecos);
    EXPECT_EQ("/home/u", user.homeDirectory);
    EXPECT_EQ("/bin/sh", user.shell);
    EXPECT_EQ("hash", user.passwordHash);
    EXPECT_EQ(0x80000200U, user.accountControl);
    EXPECT_FALSE(user.enabled);
    EXPECT_EQ(133000000000000000LL, user.passwordTime);
    EXPECT_EQ(std::numeric_limits<std::int64_t>::min(), user.passwordExpiry);
    EXPECT_EQ(std::numeric_limits<std::int64_t>::max(), user.accountExpires);
}

class EnumerationTest : public LocalRpcSessionTest {
protected:
    static std::vector<std::string> allUsers(LocalRpcSession& session) {
        std::vector<std::string> names;
        try {
            for (;;) {
                names.push_back(session.getUser2(NEXT_ENTRY, UNIX_ONLY).name);
            }
        } catch (const EndOfListException&) {
        }
        return names;
    }
    // Two pages of users, then the end.
    static std::string usersInPages(const q_request& request, int& page) {
        switch (request.operation) {
        case Q_USERS_START:
            page = 0;
            return ScriptedDaemon::done(request);
        case Q_USERS_NEXT:
            return ++page == 1 ? ScriptedDaemon::users(request, true, {"a", "b"})
                               : ScriptedDaemon::users(request, false, {"c"});
        default:
            return ScriptedDaemon::done(request);
        }
    }
};

TEST_F(EnumerationTest, UsersComePageByPageAndEndOnce) {
    int page = 0;
    m_daemon.start([&](const q_request& request) { return usersInPages(request, page); });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListUser();
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), allUsers(session));
    EXPECT_THROW(session.getUser2(NEXT_ENTRY, UNIX_ONLY), EndOfListException);
    session.endListUser();
    EXPECT_EQ((Operations{Q_USERS_START, Q_USERS_NEXT, Q_USERS_NEXT}), m_daemon.operations());
    session.startListUser(); // a second time
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), allUsers(session));
}

TEST_F(EnumerationTest, FlagsGoWithTheStart) {
    unsigned flags = 0;
    m_daemon.start([&](const q_request& request) {
        if (request.operation == Q_GROUPS_START) {
            flags = request.q_request_u.group_flags;
            return ScriptedDaemon::done(request);
        }
        return ScriptedDaemon::groups(request, false, {});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListGroup(false);
    EXPECT_THROW(session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP | UNIX_ONLY), EndOfListException);
    EXPECT_EQ(GROUP_MEMBERSHIP | UNIX_ONLY, flags);
}

TEST_F(EnumerationTest, WithoutStartThereIsNoNext) {
    m_daemon.start([](const q_request& request) { return ScriptedDaemon::done(request); });
    LocalRpcSession session(m_daemon.socket(), false, true);
    EXPECT_THROW(session.getUser2(NEXT_ENTRY, UNIX_ONLY), IPCException);
    EXPECT_THROW(session.getGroup2(NEXT_ENTRY, UNIX_ONLY), IPCException);
    session.startListUser();
    session.endListUser();
    EXPECT_THROW(session.getUser2(NEXT_ENTRY, UNIX_ONLY), IPCException);
    EXPECT_TRUE(m_daemon.operations().empty());
}

TEST_F(EnumerationTest, EnumerationThatBreaksNeverLooksLikeAnEnd) {
    int page = 0;
    std::atomic<bool> broken{true};
    m_daemon.start([&](const q_request& request) {
        if (request.operation == Q_USERS_NEXT && page == 1 && broken) {
            throw Break();
        }
        return usersInPages(request, page);
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListUser();
    session.getUser2(NEXT_ENTRY, UNIX_ONLY);
    session.getUser2(NEXT_ENTRY, UNIX_ONLY);
    EXPECT_THROW(session.getUser2(NEXT_ENTRY, UNIX_ONLY), IPCException);
    broken = false;
    EXPECT_THROW(session.getUser2(NEXT_ENTRY, UNIX_ONLY), IPCException);
    session.endListUser();
    session.startListUser();
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), allUsers(session));
}

TEST_F(EnumerationTest, EnumerationIsLostWhenTheDaemonRestarts) {
    int page = 0;
    const auto script = [&](const q_request& request) { return usersInPages(request, page); };
    m_daemon.start(script);
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListUser();
    session.getUser2(NEXT_ENTRY, UNIX_ONLY);
    session.getUser2(NEXT_ENTRY, UNIX_ONLY);
    m_daemon.start(script);
    EXPECT_THROW(session.getUser2(NEXT_ENTRY, UNIX_ONLY), IPCException);
    EXPECT_EQ((Operations{Q_USERS_START, Q_USERS_NEXT}), m_daemon.operations());
}

TEST_F(EnumerationTest, DirectoryFailureEndsTheEnumerationWithAnError) {
    m_daemon.start([](const q_request& request) {
        return request.operation == Q_USERS_START
                   ? ScriptedDaemon::done(request)
                   : ScriptedDaemon::failure(Q_UNAVAILABLE, "controller away");
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListUser();
    EXPECT_EQ("controller away",
              raised<IPCException>([&] { session.getUser2(NEXT_ENTRY, UNIX_ONLY); }));
    EXPECT_THROW(session.getUser2(NEXT_ENTRY, UNIX_ONLY), IPCException);
}

TEST_F(EnumerationTest, AbandonedEnumerationIsEndedBeforeTheNextCall) {
    int page = 0;
    m_daemon.start([&](const q_request& request) {
        return request.operation == Q_SETTING ? ScriptedDaemon::setting(request, "v")
                                              : usersInPages(request, page);
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListUser();
    session.getUser2(NEXT_ENTRY, UNIX_ONLY);
    session.endListUser();
    session.loadSetting("x");
    EXPECT_EQ((Operations{Q_USERS_START, Q_USERS_NEXT, Q_USERS_END, Q_SETTING}),
              m_daemon.operations());
}

TEST_F(EnumerationTest, UsersAndGroupsMayBeEnumeratedSideBySide) {
    int page = 0;
    m_daemon.start([&](const q_request& request) {
        return request.operation == Q_GROUPS_NEXT
                   ? ScriptedDaemon::groups(request, false, {{"g", {"m1", "m2"}}, {"h", {}}})
                   : usersInPages(request, page);
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListUser();
    session.startListGroup(true);
    EXPECT_EQ("a", session.getUser2(NEXT_ENTRY, UNIX_ONLY).name);
    const GroupRecord group = session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP | UNIX_ONLY);
    EXPECT_EQ("g", group.name);
    EXPECT_EQ(7U, group.gid);
    EXPECT_EQ((std::vector<std::string>{"m1", "m2"}), group.members);
    EXPECT_EQ("b", session.getUser2(NEXT_ENTRY, UNIX_ONLY).name);
    EXPECT_EQ("h", session.getGroup2(NEXT_ENTRY, UNIX_ONLY).name);
    EXPECT_THROW(session.getGroup2(NEXT_ENTRY, UNIX_ONLY), EndOfListException);
    EXPECT_EQ("c", session.getUser2(NEXT_ENTRY, UNIX_ONLY).name);
}

TEST_F(EnumerationTest, GroupInPiecesIsPutTogether) {
    int page = 0;
    m_daemon.start([&](const q_request& request) {
        if (request.operation != Q_GROUPS_NEXT) {
            return ScriptedDaemon::done(request);
        }
        if (++page == 1) {
            return ScriptedDaemon::groups(request, true,
                                          {{"f", {"x"}}, {"g", {"a"}, true}, {"g", {"b"}, true}});
        }
        return ScriptedDaemon::groups(request, false, {{"g", {"c"}}, {"h", {}}});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    session.startListGroup(false);
    EXPECT_EQ("f", session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP).name);
    const GroupRecord group = session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP);
    EXPECT_EQ("g", group.name);
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), group.members);
    EXPECT_EQ("h", session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP).name);
    EXPECT_THROW(session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP), EndOfListException);
}

TEST_F(EnumerationTest, GroupWhoseRestIsMissingIsBadData) {
    std::atomic<bool> other{false};
    m_daemon.start([&](const q_request& request) {
        if (request.operation != Q_GROUPS_NEXT) {
            return ScriptedDaemon::done(request);
        }
        if (other) {
            return ScriptedDaemon::groups(request, false, {{"g", {"a"}, true}, {"h", {"b"}}});
        }
        return ScriptedDaemon::groups(request, false, {{"g", {"a"}, true}});
    });
    LocalRpcSession session(m_daemon.socket(), false, true);
    for (const bool turn : {false, true}) {
        other = turn;
        session.startListGroup(false);
        EXPECT_THROW(session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP), BadDataException);
        EXPECT_THROW(session.getGroup2(NEXT_ENTRY, GROUP_MEMBERSHIP), IPCException);
        session.endListGroup();
    }
}

// The free function talks to the daemon's fixed place, which only a private system has to give.
class LoadSettingTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, ::access("/run/.layers", F_OK)) << "not on a private system";
    }
    ScriptedDaemon m_daemon{QUORAD_SOCKET};
};

TEST_F(LoadSettingTest, SettingIsReadAndTrimmedIfWanted) {
    m_daemon.start([](const q_request& r) { return ScriptedDaemon::setting(r, " CN=z \n"); });
    EXPECT_EQ(" CN=z \n", loadSetting("zonename", true, false));
    EXPECT_EQ("CN=z", loadSetting("zonename", true, true));
}

TEST_F(LoadSettingTest, MissingSettingIsAnErrorOnlyWhenRequired) {
    m_daemon.start([](const q_request&) { return ScriptedDaemon::failure(Q_NOT_FOUND, "none"); });
    EXPECT_THROW(loadSetting("zonename", true, true), NotFoundException);
    EXPECT_EQ("", loadSetting("zonename", false, true));
}

TEST_F(LoadSettingTest, DaemonThatIsAwayIsAlwaysAnError) {
    EXPECT_THROW(loadSetting("zonename", false, true), IOException);
}

} // namespace
