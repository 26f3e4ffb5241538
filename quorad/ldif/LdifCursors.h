#pragma once

#include "../Directory.h"
#include "../Filter.h"
#include "Index.h"
#include "ObjectMaker.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace quorad::ldif {

/// Runs a question to the index. What the index throws becomes tessa::IPCException, and damage is
/// reported to it.
template <typename Question> auto asking(const std::shared_ptr<Index>& index, Question question) {
    try {
        return question();
    } catch (const sqlite::Damaged& e) {
        index->reportDamage();
        TESSA_THROW(tessa::IPCException,
                    std::string("the directory index is damaged: ") + e.what());
    } catch (const tessa::DBException& e) {
        TESSA_THROW(tessa::IPCException,
                    std::string("the directory index cannot be read: ") + e.what());
    }
}

/// A search. Each page is a question of its own to the state of the index at that time; nothing is
/// held between two pages. An object that changes meanwhile moves behind the upper bound, or to the
/// end of a walk without one.
class SearchCursor : public ObjectCursor {
public:
    /// @param base node below which to search
    SearchCursor(std::shared_ptr<Index> index, const SearchRequest& request, std::int64_t base,
                 Filter filter);
    bool nextPage(std::vector<tessa::ADObject>& items, std::size_t limit) override;

private:
    bool read(IndexReader& reader, std::vector<tessa::ADObject>& page, std::size_t limit);

    const std::shared_ptr<Index> m_index;
    const Filter m_filter;
    const int m_scope;
    std::size_t m_left; ///< objects up to the size limit
    ObjectMaker m_maker;
    WalkRange m_range;
    WalkPosition m_position;
    std::unordered_map<std::int64_t, bool> m_inside;
    bool m_more = true;
};

/// Users in the order of their names. Reads one state of the index from begin to end, so that no
/// user is missed because another was renamed meanwhile.
class UsersOfIndex : public UserCursor {
public:
    explicit UsersOfIndex(const std::shared_ptr<Index>& index);
    bool nextPage(std::vector<tessa::UserRecord>& items, std::size_t limit) override;

private:
    const std::shared_ptr<Index> m_index;
    Index::Lease m_reader;
    ObjectMaker m_maker;
    bool m_more = true;
};

/// The same for groups.
class GroupsOfIndex : public GroupCursor {
public:
    GroupsOfIndex(const std::shared_ptr<Index>& index, bool withMembers);
    bool nextPage(std::vector<tessa::GroupRecord>& items, std::size_t limit) override;

private:
    const std::shared_ptr<Index> m_index;
    Index::Lease m_reader;
    ObjectMaker m_maker;
    const bool m_withMembers;
    bool m_more = true;
};

/// One account by its name.
/// @throws tessa::NotFoundException
tessa::UserRecord userOfIndex(IndexReader& reader, const std::string& name);
tessa::GroupRecord groupOfIndex(IndexReader& reader, const std::string& name);

} // namespace quorad::ldif
