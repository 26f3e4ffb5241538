#include "maps/GroupMap.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"
#include "maps/Directory.h"
#include "maps/Enumeration.h"

#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace nis {

namespace {

constexpr const char* DEFAULT_SUFFIX = "_";
constexpr std::size_t DEFAULT_NAME_LENGTH = 1024;

std::string lineStart(const std::string& name, std::uint32_t gid) {
    std::string line;
    line.reserve(GroupMap::LINE_LIMIT);
    line += name;
    line += ":x:";
    line += tessa::uitoa(gid);
    line += ':';
    return line;
}

std::string pieceName(const std::string& group, const GroupMap::PieceNames& names, unsigned piece) {
    const std::string ending = names.suffix + tessa::uitoa(piece);
    const std::size_t room =
        names.nameLength > ending.size() ? names.nameLength - ending.size() : 0;
    std::string name = group.substr(0, room) + ending;
    KARST_LOG(logger, tessa::LOG_DEBUGGING,
              "Group '%s': membership list exceeds 1024 character, breaking into %s", group.c_str(),
              name.c_str());
    return name;
}

} // namespace

GroupMap::GroupMap(boost::shared_ptr<NisCache> cache)
    : IntrinsicADNisMap(std::move(cache), GROUP_BY_NAME_MAP_NAME, GROUP_BY_GID_MAP_NAME) {}

bool GroupMap::mustCacheThisMap(const std::string& name) const {
    return name == GROUP_MAP_NAME;
}

void GroupMap::derivedMapRemoved(const std::string& /*name*/) {}

GroupMap::PieceNames GroupMap::PieceNames::fromConfiguration() {
    const auto config = getConfig();
    PieceNames names{config->get(PROP_LARGEGROUP, DEFAULT_SUFFIX), DEFAULT_NAME_LENGTH};
    if (!isField(names.suffix) || names.suffix.find(',') != std::string::npos) {
        KARST_LOG(logger, tessa::LOG_WARN,
                  "Value '%s' of property %s cannot be part of a group name. Using '%s'",
                  names.suffix.c_str(), PROP_LARGEGROUP, DEFAULT_SUFFIX);
        names.suffix = std::string(DEFAULT_SUFFIX);
    }
    const std::string length = config->get(PROP_GROUP_NAME_LENGTH);
    if (length.empty()) {
        return names;
    }
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(length.c_str(), &end, 10);
    if (errno != 0 || end == length.c_str() || *end != '\0' || number < 1) {
        KARST_LOG(logger, tessa::LOG_WARN, "Value '%s' of property %s is not a length. Using %zu",
                  length.c_str(), PROP_GROUP_NAME_LENGTH, DEFAULT_NAME_LENGTH);
        return names;
    }
    names.nameLength = static_cast<std::size_t>(number);
    return names;
}

void GroupMap::render(const tessa::GroupRecord& group, const PieceNames& names, const Sink& sink) {
    std::string name = group.name;
    std::string line = lineStart(name, group.gid);
    std::string firstLine; // of the group's own name, once there are pieces
    unsigned piece = 0;
    bool hasMember = false;
    for (const std::string& member : group.members) {
        if (line.size() + member.size() + (hasMember ? 1 : 0) > LINE_LIMIT) {
            if (piece == 0) {
                firstLine = std::move(line);
            } else {
                sink(name, line);
            }
            name = pieceName(group.name, names, ++piece);
            line = lineStart(name, group.gid);
            hasMember = false;
        }
        if (hasMember) {
            line += ',';
        }
        line += member;
        hasMember = true;
    }
    sink(name, line);
    if (piece != 0) {
        sink(group.name, firstLine);
    }
}

int GroupMap::enumerate(DataHorde& horde) {
    const auto interface = directory();
    const PieceNames names = PieceNames::fromConfiguration();
    int count = 0;
    interface->startListGroup();
    const Listing listing([&interface] { interface->endListGroup(); });
    try {
        forEachEntry([&interface] { return interface->nextGroup(); },
                     [&](tessa::GroupRecord group) {
                         if (!isAccountName(group.name)) {
                             KARST_LOG(logger, tessa::LOG_WARN,
                                       "Group '%s' (gid %u) is left out: not a usable name",
                                       group.name.c_str(), group.gid);
                             return;
                         }
                         const auto bad = std::erase_if(group.members, [](const std::string& name) {
                             return !isAccountName(name);
                         });
                         if (bad != 0) {
                             KARST_LOG(logger, tessa::LOG_WARN,
                                       "%zu members of group '%s' are left out: not usable names",
                                       static_cast<std::size_t>(bad), group.name.c_str());
                         }
                         const std::string gid = tessa::uitoa(group.gid);
                         render(group, names,
                                [&](const std::string& name, const std::string& line) {
                                    horde.add(name, gid, line);
                                });
                         ++count;
                     });
    } catch (...) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "catch incomplete map when download %s",
                  getName().c_str());
        throw;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Complete downloading map entries from nextGroup() %s",
              getName().c_str());
    return count;
}

void GroupMap::initialize(const tessa::Int64& /*highUSN*/) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Beginning load for map '%s', server %s",
              getName().c_str(), getServer().c_str());
    setNextUpdateTime();
    const auto horde = startHorde();
    const int count = enumerate(*horde);
    dataHordeComplete(*horde);
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "Load complete for map '%s', server %s. %d new records",
              getName().c_str(), getServer().c_str(), count);
}

} // namespace nis
