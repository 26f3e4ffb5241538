#pragma once

#include <boost/unordered_map.hpp>

#include <map>
#include <set>
#include <string>

namespace nis {

using NetgroupNames = std::set<std::string>;

/// first + "." + second, where an empty part is written "*".
std::string MakeKey(const std::string& first, const std::string& second);

/// Netgroups by (host, domain) or (user, domain). The netgroup map's lock guards it. Changes are
/// logged to "orrisd.netgroup.inv".
///
/// The keys are kept sorted: clients walk them from key to key over many requests, and in a sorted
/// table the key that follows one that was removed meanwhile can still be told.
class NetgroupByInversionTable {
public:
    using Table = std::map<std::string, NetgroupNames>;

    /// Does nothing when first or second is "-", which stands for a field without a valid value.
    void put(const std::string& netgroup, const std::string& first, const std::string& second);
    /// The reverse. What is not there stays absent.
    void remove(const std::string& netgroup, const std::string& first, const std::string& second);
    const Table& table() const { return m_table; }
    void clear() { m_table.clear(); }

private:
    Table m_table;
};

/// Netgroups by the member netgroups that they contain directly. The netgroup map's lock guards it.
class GroupInversionTable {
public:
    void put(const std::string& child, const std::string& parent);
    void remove(const std::string& child, const std::string& parent);
    /// Adds all parents, grandparents and so on of every name in the set. Ends on cycles, too.
    void expand(NetgroupNames& names) const;
    void clear() { m_table.clear(); }
    bool empty() const { return m_table.empty(); }

private:
    boost::unordered_map<std::string, NetgroupNames> m_table;
};

} // namespace nis
