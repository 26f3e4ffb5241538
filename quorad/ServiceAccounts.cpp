// Service's operations on users and groups.

#include "Answers.h"
#include "Service.h"

#include <karst/Exceptions.h>

namespace quorad {

namespace messages = tessa::messages;

std::string Service::usersStart(const q_request& request) {
    KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "%s enumerates the users", m_client.c_str());
    forgetPrepared({Q_USERS_NEXT, 0});
    m_users.reset();
    const auto backend = m_backend.get();
    m_users.emplace(backend, backend->directory->users(request.q_request_u.user_flags));
    return messages::encode(success(request.operation));
}

std::string Service::usersNext(const q_request& request) {
    if (!m_users) {
        throw NoSuchCursor("no enumeration of users is open");
    }
    try {
        messages::Arena arena;
        q_answer answer = success(request.operation);
        resultOf(answer).users = fillUsers(arena);
        std::string frame = encodeBounded(answer);
        if (resultOf(answer).users.more == FALSE) {
            m_users.reset();
        } else {
            m_likely = Next{Q_USERS_NEXT, 0};
        }
        return frame;
    } catch (...) {
        m_users.reset();
        throw;
    }
}

q_user_page Service::fillUsers(messages::Arena& arena) {
    m_users->fill();
    q_user_page page{};
    page.users.users_val = arena.array<q_user>(PAGE_ITEMS);
    std::size_t bytes = 0;
    while (const tessa::UserRecord* user = m_users->front()) {
        const std::size_t size = messages::encodedSize(*user);
        const u_int count = page.users.users_len;
        if (count == PAGE_ITEMS || (count > 0 && bytes + size > PAGE_BYTES)) {
            break;
        }
        bytes += size;
        page.users.users_val[page.users.users_len++] = messages::toMessage(*user);
        m_users->pop();
    }
    page.more = m_users->more() ? TRUE : FALSE;
    return page;
}

std::string Service::usersEnd(const q_request& request) {
    forgetPrepared({Q_USERS_NEXT, 0});
    m_users.reset();
    return messages::encode(success(request.operation));
}

std::string Service::groupsStart(const q_request& request) {
    KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "%s enumerates the groups", m_client.c_str());
    forgetPrepared({Q_GROUPS_NEXT, 0});
    m_groups.reset();
    m_firstMember = 0;
    const auto backend = m_backend.get();
    m_groups.emplace(backend, backend->directory->groups(request.q_request_u.group_flags));
    return messages::encode(success(request.operation));
}

std::string Service::groupsNext(const q_request& request) {
    if (!m_groups) {
        throw NoSuchCursor("no enumeration of groups is open");
    }
    try {
        messages::Arena arena;
        q_answer answer = success(request.operation);
        resultOf(answer).groups = fillGroups(arena);
        std::string frame = encodeBounded(answer);
        if (resultOf(answer).groups.more == FALSE) {
            m_groups.reset();
        } else {
            m_likely = Next{Q_GROUPS_NEXT, 0};
        }
        return frame;
    } catch (...) {
        m_groups.reset();
        throw;
    }
}

q_group_page Service::fillGroups(messages::Arena& arena) {
    m_groups->fill();
    q_group_page page{};
    page.groups.groups_val = arena.array<q_group>(PAGE_ITEMS);
    std::size_t bytes = 0;
    while (page.groups.groups_len < PAGE_ITEMS && addGroupPiece(page, bytes, arena)) {
    }
    page.more = m_groups->more() ? TRUE : FALSE;
    return page;
}

// Adds the group at hand, or as many of its members as the page has room for. Groups have any
// number of members, so one group may take many pages. False when the page is full or no group is
// at hand.
bool Service::addGroupPiece(q_group_page& page, std::size_t& bytes, messages::Arena& arena) {
    const tessa::GroupRecord* group = m_groups->front();
    if (group == nullptr || bytes >= PAGE_BYTES) {
        return false;
    }
    const q_group piece = messages::toMessage(*group, m_firstMember, PAGE_BYTES - bytes, arena);
    page.groups.groups_val[page.groups.groups_len++] = piece;
    if (piece.continues != FALSE) {
        m_firstMember += piece.members.members_len;
        return false;
    }
    bytes += messages::encodedSize(*group);
    m_firstMember = 0;
    m_groups->pop();
    return true;
}

std::string Service::groupsEnd(const q_request& request) {
    forgetPrepared({Q_GROUPS_NEXT, 0});
    m_groups.reset();
    return messages::encode(success(request.operation));
}

std::string Service::user(const q_request& request) {
    const tessa::UserRecord record =
        m_backend.get()->directory->user(messages::text(request.q_request_u.user_name));
    q_answer answer = success(request.operation);
    resultOf(answer).user = messages::toMessage(record);
    return encodeBounded(answer);
}

std::string Service::group(const q_request& request) {
    const tessa::GroupRecord record =
        m_backend.get()->directory->group(messages::text(request.q_request_u.group_name));
    messages::Arena arena;
    q_answer answer = success(request.operation);
    // All members in one piece: encodeBounded says so when no message can carry them.
    resultOf(answer).group = messages::toMessage(record, 0, messages::encodedSize(record), arena);
    return encodeBounded(answer);
}

} // namespace quorad
