#pragma once

#include "Directory.h"

#include <karst/ADObject.h>
#include <karst/Mutex.h>

#include <string>
#include <vector>

namespace quorad {

/// Adds what a zone object says in a packed form as attributes of its own: the NIS domain name of
/// an extensionName value "nisdomain=NAME" becomes tessa::TESSA_ZONE_SFU. An object that says
/// nothing of the kind stays as it is.
void addZoneAttributes(tessa::ADObject& object);

/// The machine's zone: its settings, the zone object and the zones it inherits from. What the
/// directory said last is remembered on disk, so that a restart while the directory is away finds
/// it again. Thread-safe: the mutex guards what is remembered and is not held while the directory
/// is asked.
class Zones {
public:
    /// Reads what is remembered; a damaged or foreign file counts as none and is reported.
    /// @param directory asked by refresh(); outlives this object
    /// @param zoneDN the configured zone
    /// @param hostName name of this machine in the directory; empty when it has not joined
    /// @param stateFile where to remember; its folder exists
    Zones(Directory& directory, std::string zoneDN, std::string hostName, std::string stateFile);

    /// A client setting by its name (tessa::SETTING_*).
    /// @throws tessa::NotFoundException when it is not known
    std::string setting(const std::string& name);
    /// The zone, then the zones it lies in, up to the container of all zones: one DN a line. Empty
    /// when nothing is known yet.
    std::string hierarchy();
    /// The zone object as last seen, with all attributes.
    /// @param dn a DN or "<GUID=...>"
    /// @return false when that is not the machine's zone, or it has never been seen
    bool rememberedZoneObject(const std::string& dn, tessa::ADObject& object);

    /// Asks the directory and remembers what changed. When it cannot be asked, or does not know the
    /// zone, what is remembered stays. Never throws what the directory throws.
    void refresh();

private:
    struct State {
        bool known = false;
        tessa::ADObject zone;
        std::vector<std::string> hierarchy;
    };

    State ask();
    void refreshUnknown();
    void reportOnce(const std::string& failure);
    void load();
    void save(const State& state) const;
    static bool same(const State& a, const State& b);

    Directory& m_directory;
    const std::string m_zoneDN;
    const std::string m_domain;
    const std::string m_hostName;
    const std::string m_stateFile;

    tessa::Mutex m_refreshMutex; ///< one refresh at a time; taken before m_mutex
    bool m_saveDue KARST_GUARDED_BY(m_refreshMutex) = false; ///< the file is behind m_state
    tessa::Mutex m_mutex;
    State m_state KARST_GUARDED_BY(m_mutex);
    std::string m_lastFailure KARST_GUARDED_BY(m_mutex); ///< reported once, until it changes
};

} // namespace quorad
