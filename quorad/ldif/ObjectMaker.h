#pragma once

#include "../Filter.h"

#include <karst/ADObject.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorad::ldif {

/// A row of the index.
struct ObjectRow {
    std::string_view guid;
    std::int64_t usn = 0;
    std::string_view body;
};

/// Makes objects with the attributes that were asked for out of rows of the index. Immutable but
/// for the server's name; safe to share between threads once that is set.
class ObjectMaker {
public:
    /// @param attributes names to deliver; none, or "*": all
    /// @param filter rows that do not match are left out; may be null; must outlive the maker
    ObjectMaker(const std::vector<std::string>& attributes, bool allAttributes,
                const Filter* filter = nullptr);

    /// The same with another filter.
    ObjectMaker withFilter(const Filter& filter) const;
    void setServer(std::string server) { m_server = std::move(server); }

    /// @return false when the filter leaves the row out
    /// @throws sqlite::Damaged
    bool make(const ObjectRow& row, tessa::ADObject& object) const;
    /// What is left of an object that was deleted from a container.
    tessa::ADObject makeDeleted(std::string_view guid, std::int64_t usn, std::string_view dn) const;
    /// Adds the packed attributes that were asked for.
    void addAttributes(std::string_view body, tessa::ADObject& object) const;
    const std::string& server() const { return m_server; }

private:
    bool wants(std::string_view name) const;
    void addIdentity(std::string_view dn, std::string_view guid, std::int64_t usn,
                     tessa::ADObject& object) const;

    bool m_all;
    bool m_wantsUsn;
    std::vector<std::string> m_names; ///< lower-cased
    const Filter* m_filter;
    std::string m_server;
};

} // namespace quorad::ldif
