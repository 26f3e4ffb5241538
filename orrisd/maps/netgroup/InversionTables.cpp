#include "maps/netgroup/InversionTables.h"

#include "common/Globals.h"

#include <vector>

namespace nis {

namespace {

const boost::shared_ptr<tessa::Logger>& inversionLogger() {
    static const auto log = tessa::Logger::get(ORRISD_NETGROUP_INVERSION_LOG_NAME);
    return log;
}

/// Whether the pair is to be left out: one of its fields has no valid value.
bool isSkipped(const std::string& netgroup, const std::string& first, const std::string& second) {
    if (first != "-" && second != "-") {
        return false;
    }
    KARST_LOG(inversionLogger(), tessa::LOG_TRACE, "Skipping (%s,%s): %s", first.c_str(),
              second.c_str(), netgroup.c_str());
    return true;
}

} // namespace

std::string MakeKey(const std::string& first, const std::string& second) {
    return (first.empty() ? "*" : first) + "." + (second.empty() ? "*" : second);
}

void NetgroupByInversionTable::put(const std::string& netgroup, const std::string& first,
                                   const std::string& second) {
    if (isSkipped(netgroup, first, second)) {
        return;
    }
    const std::string key = MakeKey(first, second);
    m_table[key].insert(netgroup);
    KARST_LOG(inversionLogger(), tessa::LOG_TRACE, "Insert %s -> %s", key.c_str(),
              netgroup.c_str());
}

void NetgroupByInversionTable::remove(const std::string& netgroup, const std::string& first,
                                      const std::string& second) {
    if (isSkipped(netgroup, first, second)) {
        return;
    }
    const std::string key = MakeKey(first, second);
    const auto found = m_table.find(key);
    if (found == m_table.end() || found->second.erase(netgroup) == 0) {
        KARST_LOG(inversionLogger(), tessa::LOG_TRACE, "Erase %s -> %s -- not present!",
                  key.c_str(), netgroup.c_str());
        return;
    }
    KARST_LOG(inversionLogger(), tessa::LOG_TRACE, "Erase %s -> %s", key.c_str(), netgroup.c_str());
    if (found->second.empty()) {
        m_table.erase(found);
        KARST_LOG(inversionLogger(), tessa::LOG_TRACE, "Erase key %s", key.c_str());
    }
}

void GroupInversionTable::put(const std::string& child, const std::string& parent) {
    m_table[child].insert(parent);
}

void GroupInversionTable::remove(const std::string& child, const std::string& parent) {
    const auto found = m_table.find(child);
    if (found == m_table.end()) {
        return;
    }
    found->second.erase(parent);
    if (found->second.empty()) {
        m_table.erase(found);
    }
}

void GroupInversionTable::expand(NetgroupNames& names) const {
    std::vector<std::string> open(names.begin(), names.end());
    while (!open.empty()) {
        const auto parents = m_table.find(open.back());
        open.pop_back();
        if (parents == m_table.end()) {
            continue;
        }
        for (const std::string& parent : parents->second) {
            if (names.insert(parent).second) {
                open.push_back(parent);
            }
        }
    }
}

} // namespace nis
