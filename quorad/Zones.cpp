#include "Zones.h"

#include "Reporter.h"
#include "ldif/Base64.h"
#include "ldif/LdifReader.h"
#include "ldif/SourceFile.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Guid.h>
#include <karst/Logger.h>
#include <karst/Text.h>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorad {

namespace {

constexpr std::string_view NIS_DOMAIN = "nisdomain=";
constexpr const char* HIERARCHY = "hierarchy";
constexpr const char* COMPLETE = "complete"; // the last line of the state file
constexpr const char* ZONES_CONTAINER = "cn=zones";

boost::shared_ptr<tessa::Logger> logger() {
    static const auto instance = tessa::Logger::get(LOGGER_NAME);
    return instance;
}

bool isContainer(const tessa::ADObject& object) {
    const auto& classes = object["objectClass"].values();
    return std::any_of(classes.begin(), classes.end(), [](const std::string& name) {
        return tessa::equalsIgnoreCase(name, "container");
    });
}

// Whether the object of that name lies somewhere below the container of all zones.
bool isBelowZones(const std::string& dn) {
    const std::string zones = std::string(",") + ZONES_CONTAINER;
    const std::string name = tessa::DN::normalize(dn);
    for (std::size_t at = name.find(zones); at != std::string::npos;
         at = name.find(zones, at + 1)) {
        const std::size_t behind = at + zones.size();
        if (name[at - (at > 0 ? 1 : 0)] != '\\' && (behind == name.size() || name[behind] == ',')) {
            return true;
        }
    }
    return false;
}

[[noreturn]] void failed(const std::string& what, const std::string& path) {
    TESSA_THROW(tessa::SystemException,
                "cannot " + what + " '" + path + "': " + tessa::errorText(errno));
}

void writeAll(int file, const std::string& bytes, const std::string& path) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = ::write(file, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno != EINTR) {
            failed("write", path);
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

// Puts the bytes in the place of the file in one step.
void replaceFile(const std::string& path, const std::string& bytes) {
    const std::string fresh = path + ".new";
    ::unlink(fresh.c_str());
    const int file = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            S_IRUSR | S_IWUSR);
    if (file < 0) {
        failed("create", fresh);
    }
    try {
        writeAll(file, bytes, fresh);
        if (::fsync(file) != 0) {
            failed("write", fresh);
        }
    } catch (...) {
        ::close(file);
        ::unlink(fresh.c_str());
        throw;
    }
    ::close(file);
    if (::rename(fresh.c_str(), path.c_str()) != 0) {
        failed("replace", path);
    }
}

tessa::ADObject objectOf(const ldif::LdifRecord& record) {
    std::vector<std::pair<std::string, std::vector<std::string>>> attributes;
    for (std::size_t i = 0; i < record.size(); ++i) {
        if (attributes.empty() || attributes.back().first != record.name(i)) {
            attributes.emplace_back(std::string(record.name(i)), std::vector<std::string>());
        }
        attributes.back().second.emplace_back(record.value(i));
    }
    tessa::ADObject object;
    for (auto& attribute : attributes) {
        object.set(attribute.first, std::move(attribute.second));
    }
    return object;
}

} // namespace

void addZoneAttributes(tessa::ADObject& object) {
    std::vector<std::string> values = object["extensionName"].values();
    std::sort(values.begin(), values.end()); // of several always the same one
    for (const std::string& value : values) {
        if (!tessa::equalsIgnoreCase(std::string_view(value).substr(0, NIS_DOMAIN.size()),
                                     NIS_DOMAIN)) {
            continue;
        }
        const std::string name(
            tessa::trimWhiteSpace(std::string_view(value).substr(NIS_DOMAIN.size())));
        if (!name.empty()) {
            object.set(tessa::TESSA_ZONE_SFU, name);
            return;
        }
    }
}

Zones::Zones(Directory& directory, std::string zoneDN, std::string hostName, std::string stateFile)
    : m_directory(directory), m_zoneDN(std::move(zoneDN)),
      m_domain(tessa::DN::domainFromDN(m_zoneDN)), m_hostName(std::move(hostName)),
      m_stateFile(std::move(stateFile)) {
    try {
        load();
    } catch (const tessa::TESSAException& e) {
        KARST_LOG(logger(), tessa::LOG_WARN, "What was remembered of the zone cannot be used: %s",
                  e.what());
    }
}

std::string Zones::setting(const std::string& name) {
    std::string value;
    if (name == tessa::SETTING_ZONE_NAME) {
        value = m_zoneDN;
    } else if (name == tessa::SETTING_HOST_NAME) {
        value = m_hostName;
    } else if (name == tessa::SETTING_ZONE_GUID) {
        refreshUnknown();
        const tessa::Lock lock(m_mutex);
        if (m_state.known) {
            value = tessa::Guid::fromBytes(m_state.zone.guid()).toString();
        }
    }
    if (value.empty()) {
        TESSA_THROW(tessa::NotFoundException, "setting '" + name + "' is not known");
    }
    return value;
}

std::string Zones::hierarchy() {
    refreshUnknown();
    const tessa::Lock lock(m_mutex);
    std::string text;
    for (const std::string& dn : m_state.hierarchy) {
        text += (text.empty() ? "" : "\n") + dn;
    }
    return text;
}

bool Zones::rememberedZoneObject(const std::string& dn, tessa::ADObject& object) {
    const tessa::Lock lock(m_mutex);
    if (!m_state.known) {
        return false;
    }
    const std::string name = tessa::DN::normalize(dn);
    const bool isZone =
        tessa::equalsIgnoreCase(dn, tessa::Guid::fromBytes(m_state.zone.guid()).toDN()) ||
        name == tessa::DN::normalize(m_zoneDN) ||
        name == tessa::DN::normalize(m_state.zone["_dn"].asString());
    if (isZone) {
        object = m_state.zone;
        addZoneAttributes(object);
    }
    return isZone;
}

void Zones::refreshUnknown() {
    bool known = false;
    {
        const tessa::Lock lock(m_mutex);
        known = m_state.known;
    }
    if (!known) {
        refresh();
    }
}

void Zones::refresh() {
    const tessa::Lock refreshing(m_refreshMutex);
    try {
        State state = ask();
        bool changed = false;
        {
            const tessa::Lock lock(m_mutex);
            changed = !same(state, m_state);
            m_state = state;
            m_lastFailure.clear();
        }
        m_saveDue = m_saveDue || changed;
        if (m_saveDue) {
            save(state);
            m_saveDue = false;
        }
    } catch (const tessa::IPCException& e) {
        // The directory is away: it is for those who ask it to say so.
        KARST_LOG(logger(), tessa::LOG_DEBUGGING, "While looking for the zone: %s", e.what());
    } catch (const tessa::TESSAException& e) {
        reportOnce(e.what());
    }
}

void Zones::reportOnce(const std::string& failure) {
    const tessa::Lock lock(m_mutex);
    if (failure != m_lastFailure) {
        m_lastFailure = failure;
        KARST_LOG(logger(), tessa::LOG_WARN, "While looking for the zone '%s': %s",
                  m_zoneDN.c_str(), failure.c_str());
    }
}

// The zone object and the zones above it, as the directory has them now.
Zones::State Zones::ask() {
    State state;
    state.zone = m_directory.fetch(m_domain, m_zoneDN, {}, true);
    if (state.zone.guid().empty()) {
        TESSA_THROW(tessa::BadDataException, "the zone object has no GUID");
    }
    std::string dn = state.zone["_dn"];
    state.hierarchy.push_back(dn);
    for (dn = tessa::DN::parent(dn); isBelowZones(dn); dn = tessa::DN::parent(dn)) {
        try {
            const tessa::ADObject above = m_directory.fetch(m_domain, dn, {"objectClass"}, false);
            if (!isContainer(above)) {
                break;
            }
            state.hierarchy.push_back(above["_dn"].asString());
        } catch (const tessa::NotFoundException&) {
            break; // a name only, of which no zone object exists
        }
    }
    state.known = true;
    return state;
}

bool Zones::same(const State& a, const State& b) {
    const auto sameAttributes = [](const tessa::ADObject& left, const tessa::ADObject& right) {
        return std::all_of(left.attributes().begin(), left.attributes().end(),
                           [&](const tessa::ADObject::NamedAttribute& attribute) {
                               // Which server answered is not worth a write each time.
                               return attribute.name == "_server" ||
                                      right[attribute.name].values() == attribute.values;
                           });
    };
    return a.known == b.known && a.hierarchy == b.hierarchy && sameAttributes(a.zone, b.zone) &&
           sameAttributes(b.zone, a.zone);
}

// Remembered as two records: the zone object under the configured name, and under no name the
// hierarchy.
void Zones::save(const State& state) const {
    std::string text = "version: 1\n" + ldif::attributeLine("dn", m_zoneDN);
    for (const auto& attribute : state.zone.attributes()) {
        for (const std::string& value : attribute.values) {
            text += ldif::attributeLine(attribute.name, value);
        }
    }
    text += "\ndn:\n";
    for (const std::string& dn : state.hierarchy) {
        text += ldif::attributeLine(HIERARCHY, dn);
    }
    text += ldif::attributeLine(COMPLETE, "yes");
    replaceFile(m_stateFile, text);
}

void Zones::load() {
    struct stat status {};
    if (::stat(m_stateFile.c_str(), &status) != 0 && errno == ENOENT) {
        return;
    }
    ldif::SourceFile file(m_stateFile);
    ldif::LdifReader reader(
        m_stateFile, [&](char* buffer, std::size_t size) { return file.read(buffer, size); });
    ldif::LdifRecord record;
    State state;
    while (reader.next(record)) {
        if (!record.dn.empty() && record.dn != m_zoneDN) {
            return; // the machine was in another zone then
        }
        if (!record.dn.empty()) {
            state.zone = objectOf(record);
            continue;
        }
        for (std::size_t i = 0; i < record.size(); ++i) {
            if (record.name(i) == HIERARCHY) {
                state.hierarchy.emplace_back(record.value(i));
            }
            state.known = record.name(i) == COMPLETE && record.value(i) == "yes";
        }
    }
    tessa::Guid::fromBytes(state.zone.guid()); // refuses what is none
    if (!state.known || state.hierarchy.empty()) {
        TESSA_THROW(tessa::BadDataException, "'" + m_stateFile + "' is not complete");
    }
    const tessa::Lock lock(m_mutex);
    m_state = std::move(state);
}

} // namespace quorad
