// Member lists of netgroups: whatever an administrator typed is parsed to its end, and what a list
// put into the tables is exactly what it takes out of them.
#include "common/Globals.h"
#include "maps/netgroup/InversionTables.h"
#include "maps/netgroup/MemberParser.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = [] {
        tessa::Logger::get(nis::ORRISD_NETGROUP_SYNTAX_LOG_NAME)->setThreshold(tessa::LOG_FATAL);
        return true;
    }();
    const std::string value(reinterpret_cast<const char*>(data), size);
    std::list<nis::NetgroupEntry> members;
    nis::ParseNetgroupMembers(value, members, quiet, "fuzz");
    // Each member takes at least one character.
    if (members.size() > size) {
        std::abort();
    }
    nis::NetgroupByInversionTable table;
    nis::GroupInversionTable parents;
    for (const auto& member : members) {
        if (member.kind == nis::NetgroupEntry::GROUP) {
            if (member.group.empty()) {
                std::abort();
            }
            parents.put(member.group, "fuzz");
        } else {
            table.put("fuzz", member.host, member.domain);
        }
    }
    nis::NetgroupNames names{"fuzz"};
    parents.expand(names);
    for (const auto& member : members) {
        if (member.kind == nis::NetgroupEntry::GROUP) {
            parents.remove(member.group, "fuzz");
        } else {
            table.remove("fuzz", member.host, member.domain);
        }
    }
    if (!table.table().empty() || !parents.empty()) {
        std::abort();
    }
    return 0;
}
