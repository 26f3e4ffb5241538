#include "LdifCursors.h"

#include "../Accounts.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace quorad::ldif {

namespace {

class MembersOfIndex : public MemberSource {
public:
    explicit MembersOfIndex(IndexReader& reader) : m_reader(reader) {}
    bool find(const std::string& dn, AccountReference& account) override {
        return m_reader.member(dn, account);
    }
    std::vector<std::string> primaryMembers(std::uint32_t rid) override {
        return m_reader.primaryMembers(rid);
    }

private:
    IndexReader& m_reader;
};

std::int64_t now() {
    return Accounts::directoryTime(std::time(nullptr));
}

bool makeGroup(const tessa::ADObject& object, bool withMembers, IndexReader& reader,
               tessa::GroupRecord& group) {
    std::string reason; // an administrator was told when the object was loaded
    if (!Accounts::makeGroup(object, group, reason)) {
        return false;
    }
    if (withMembers) {
        MembersOfIndex source(reader);
        group.members = Accounts::members(Accounts::groupReference(object), source);
    }
    return true;
}

} // namespace

SearchCursor::SearchCursor(std::shared_ptr<Index> index, const SearchRequest& request,
                           std::int64_t base, Filter filter)
    : m_index(std::move(index)), m_filter(std::move(filter)), m_scope(request.scope),
      m_left(request.sizeLimit == 0 ? std::numeric_limits<std::size_t>::max() : request.sizeLimit),
      m_maker(request.attributes, request.allAttributes,
              m_filter.usnRange().complete ? nullptr : &m_filter) {
    m_range = {base, m_filter.usnRange().lower, m_filter.usnRange().upper};
    m_position.usn = m_range.lower;
    m_position.deletionsDone = m_scope != tessa::SCOPE_ONE_LEVEL || !m_filter.usnRange().hasLower;
}

bool SearchCursor::nextPage(std::vector<tessa::ADObject>& items, std::size_t limit) {
    std::vector<tessa::ADObject> page;
    limit = std::min(limit, m_left);
    if (m_more && limit > 0) {
        m_more = asking(m_index, [&] {
            const Index::Lease reader = m_index->reader();
            m_maker.setServer(reader->server());
            return read(*reader, page, limit);
        });
    }
    m_left -= page.size();
    std::move(page.begin(), page.end(), std::back_inserter(items));
    return m_more && m_left > 0;
}

bool SearchCursor::read(IndexReader& reader, std::vector<tessa::ADObject>& page,
                        std::size_t limit) {
    if (m_scope == tessa::SCOPE_BASE) {
        // Bounds that are all of the filter have not been looked at yet.
        const ObjectMaker maker = m_maker.withFilter(m_filter);
        tessa::ADObject object;
        if (reader.object(m_range.base, maker, object)) {
            page.push_back(std::move(object));
        }
        return false;
    }
    if (m_scope == tessa::SCOPE_SUBTREE) {
        return reader.subtree(m_range, m_position, m_inside, m_maker, page, limit);
    }
    // What was deleted comes first: its keys may have passed on to others.
    if (!m_position.deletionsDone) {
        if (reader.deletions(m_range, m_position, m_maker, page, limit)) {
            return true;
        }
        m_position.deletionsDone = true;
        m_position.usn = m_range.lower;
    }
    return reader.children(m_range, m_position, m_maker, page, limit);
}

UsersOfIndex::UsersOfIndex(const std::shared_ptr<Index>& index)
    : m_index(index), m_reader(asking(index, [&] { return index->reader(); })),
      m_maker(Accounts::userAttributes(), false) {
    m_reader->startAccounts(AccountKind::USER);
}

bool UsersOfIndex::nextPage(std::vector<tessa::UserRecord>& items, std::size_t limit) {
    const std::int64_t time = now();
    tessa::ADObject object;
    for (std::size_t count = 0; m_more && count < limit;) {
        m_more = asking(m_index, [&] { return m_reader->nextAccount(m_maker, object); });
        tessa::UserRecord user;
        std::string reason;
        if (m_more && Accounts::makeUser(object, time, user, reason)) {
            items.push_back(std::move(user));
            ++count;
        }
    }
    return m_more;
}

GroupsOfIndex::GroupsOfIndex(const std::shared_ptr<Index>& index, bool withMembers)
    : m_index(index), m_reader(asking(index, [&] { return index->reader(); })),
      m_maker(Accounts::groupAttributes(), false), m_withMembers(withMembers) {
    m_reader->startAccounts(AccountKind::GROUP);
}

bool GroupsOfIndex::nextPage(std::vector<tessa::GroupRecord>& items, std::size_t limit) {
    tessa::ADObject object;
    for (std::size_t count = 0; m_more && count < limit;) {
        asking(m_index, [&] {
            m_more = m_reader->nextAccount(m_maker, object);
            tessa::GroupRecord group;
            if (m_more && makeGroup(object, m_withMembers, *m_reader, group)) {
                items.push_back(std::move(group));
                ++count;
            }
        });
    }
    return m_more;
}

tessa::UserRecord userOfIndex(IndexReader& reader, const std::string& name) {
    const std::int64_t id = reader.findAccount(AccountKind::USER, name);
    const ObjectMaker maker(Accounts::userAttributes(), false);
    tessa::ADObject object;
    tessa::UserRecord user;
    std::string reason;
    if (id == 0 || !reader.object(id, maker, object) ||
        !Accounts::makeUser(object, now(), user, reason)) {
        TESSA_THROW(tessa::NotFoundException, "no user '" + name + "'");
    }
    return user;
}

tessa::GroupRecord groupOfIndex(IndexReader& reader, const std::string& name) {
    const std::int64_t id = reader.findAccount(AccountKind::GROUP, name);
    const ObjectMaker maker(Accounts::groupAttributes(), false);
    tessa::ADObject object;
    tessa::GroupRecord group;
    if (id == 0 || !reader.object(id, maker, object) || !makeGroup(object, true, reader, group)) {
        TESSA_THROW(tessa::NotFoundException, "no group '" + name + "'");
    }
    return group;
}

} // namespace quorad::ldif
