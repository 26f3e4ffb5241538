// Pages that are made while the client works on the one before.
#include "ServiceFixture.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>

namespace {

using namespace quorad;
using namespace quorad::testing;

class ServiceAheadTest : public AccountsOfServiceTest {
protected:
    // The page after this one, made before it is asked for: what the directory says from now on no
    // longer matters to it.
    unsigned prepared(std::unique_ptr<Taken> page) {
        EXPECT_EQ(Q_OK, page->answer.status);
        const unsigned cursor = page->result().page.cursor;
        EXPECT_NE(0U, cursor);
        m_service->answered();
        return cursor;
    }
    static std::string firstName(Taken& page) {
        return messages::fromMessage(page.result().page.objects.objects_val[0])["cn"].asString();
    }
    static std::string firstUser(Taken& page) {
        return messages::text(page.result().users.users.users_val[0].name);
    }
    std::unique_ptr<Taken> end(unsigned cursor) {
        q_request request = requestFor(Q_SEARCH_END);
        request.q_request_u.end_cursor = cursor;
        return send(request);
    }
};

TEST_F(ServiceAheadTest, EverythingArrivesOnceAndInOrder) {
    addObjects(5000);
    std::size_t seen = 0;
    for (auto page = search();; page = next(page->result().page.cursor)) {
        ASSERT_EQ(Q_OK, page->answer.status);
        const q_page& content = page->result().page;
        for (u_int at = 0; at < content.objects.objects_len; ++at, ++seen) {
            ASSERT_EQ(std::to_string(seen),
                      messages::fromMessage(content.objects.objects_val[at])["cn"].asString());
        }
        m_service->answered();
        if (content.cursor == 0) {
            break;
        }
    }
    EXPECT_EQ(5000U, seen);
}

TEST_F(ServiceAheadTest, PageIsThereBeforeItIsAskedFor) {
    addObjects(3000);
    const unsigned cursor = prepared(search());
    m_directory->pagesBeforeFailure = 0;
    const auto second = next(cursor);
    ASSERT_EQ(Q_OK, second->answer.status);
    EXPECT_EQ("256", firstName(*second));
    EXPECT_EQ(Q_UNAVAILABLE, next(cursor)->answer.status);
}

TEST_F(ServiceAheadTest, FailureIsToldWhenThePageIsAskedFor) {
    addObjects(3000);
    m_directory->pagesBeforeFailure = 1;
    const unsigned cursor = prepared(search());
    EXPECT_EQ(0, m_directory->openCursors);
    const auto second = next(cursor);
    EXPECT_EQ(Q_UNAVAILABLE, second->answer.status);
    EXPECT_EQ("controller away in the middle", second->failure());
    EXPECT_EQ(Q_NO_SUCH_CURSOR, next(cursor)->answer.status);
}

TEST_F(ServiceAheadTest, SearchThatIsGivenUpIsClosedWhateverIsPrepared) {
    addObjects(300); // the page that is prepared is the last one
    const unsigned ended = prepared(search());
    EXPECT_EQ(0, m_directory->openCursors);
    EXPECT_EQ(Q_OK, end(ended)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, end(ended)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, next(ended)->answer.status);
    addObjects(3000);
    const unsigned open = prepared(search());
    EXPECT_EQ(Q_OK, end(open)->answer.status);
    EXPECT_EQ(0, m_directory->openCursors);
    m_service->answered();
    EXPECT_EQ(Q_NO_SUCH_CURSOR, next(open)->answer.status);
}

TEST_F(ServiceAheadTest, OtherRequestsInBetweenLoseNothing) {
    addObjects(3000);
    addUsers(600);
    const unsigned one = prepared(search());
    const unsigned two = prepared(search());
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
    m_service->answered();
    const auto users = send(Q_USERS_NEXT);
    EXPECT_EQ("u0", firstUser(*users));
    m_service->answered();
    EXPECT_EQ("256", firstName(*next(two)));
    m_service->answered();
    EXPECT_EQ("256", firstName(*next(one)));
    m_service->answered();
    EXPECT_EQ("1256", firstName(*next(one)));
    m_service->answered();
    EXPECT_EQ("1256", firstName(*next(two)));
    EXPECT_EQ("u256", firstUser(*send(Q_USERS_NEXT)));
}

TEST_F(ServiceAheadTest, NothingIsPreparedBehindTheLastPage) {
    addObjects(3);
    EXPECT_EQ(0U, search()->result().page.cursor);
    m_service->answered();
    EXPECT_EQ(Q_NO_SUCH_CURSOR, next(1)->answer.status);
}

TEST_F(ServiceAheadTest, EnumerationBegunAnewForgetsWhatWasPrepared) {
    addUsers(2000);
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
    EXPECT_EQ("u0", firstUser(*send(Q_USERS_NEXT)));
    m_service->answered();
    EXPECT_EQ(Q_OK, send(Q_USERS_START)->answer.status);
    m_service->answered();
    EXPECT_EQ("u0", firstUser(*send(Q_USERS_NEXT)));
    m_service->answered();
    EXPECT_EQ(Q_OK, send(Q_USERS_END)->answer.status);
    EXPECT_EQ(0, m_directory->openCursors);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(Q_USERS_NEXT)->answer.status);
}

TEST_F(ServiceAheadTest, GroupsInPiecesStayWholeAndInOrder) {
    addGroup("large", 250000, 40);
    for (int number = 0; number < 2000; ++number) {
        addGroup("g" + std::to_string(number), 2);
    }
    EXPECT_EQ(Q_OK, send(Q_GROUPS_START)->answer.status);
    std::map<std::string, std::size_t> members;
    for (bool more = true; more;) {
        const auto taken = send(Q_GROUPS_NEXT);
        ASSERT_EQ(Q_OK, taken->answer.status);
        m_service->answered();
        const q_group_page& page = taken->result().groups;
        for (u_int at = 0; at < page.groups.groups_len; ++at) {
            members[messages::text(page.groups.groups_val[at].name)] +=
                page.groups.groups_val[at].members.members_len;
        }
        more = page.more != FALSE;
    }
    EXPECT_EQ(2001U, members.size());
    EXPECT_EQ(250000U, members["large"]);
    EXPECT_EQ(2U, members["g1999"]);
    EXPECT_EQ(Q_OK, send(Q_GROUPS_START)->answer.status);
    EXPECT_EQ(Q_OK, send(Q_GROUPS_NEXT)->answer.status); // a piece of the large one
    m_service->answered();
    EXPECT_EQ(Q_OK, send(Q_GROUPS_END)->answer.status);
    EXPECT_EQ(Q_NO_SUCH_CURSOR, send(Q_GROUPS_NEXT)->answer.status);
}

} // namespace
