#pragma once

#include "directory/ADInterface.h"

#include <karst/Exceptions.h>
#include <karst/LocalRpcSession.h>

#include <deque>
#include <string>

namespace test {

/// Map entries as a search of the directory delivers them.
class ObjectFeed : public tessa::ADObjectList {
public:
    ObjectFeed& put(const std::string& id, const std::string& key, const std::string& value,
                    const std::string& server = "dc1") {
        return add(id, "name", key, value, server);
    }
    ObjectFeed& gone(const std::string& id) { return add(id, "\x01", "", "", "dc1"); }
    /// The connection breaks here.
    ObjectFeed& breakOff() {
        m_objects.emplace_back();
        return *this;
    }

    bool next(tessa::ADObject& object) override {
        if (m_objects.empty()) {
            return false;
        }
        object = m_objects.front();
        m_objects.pop_front();
        if (object.attributes().empty()) {
            TESSA_THROW(tessa::IPCException, "connection lost");
        }
        return true;
    }

    /// The 16 bytes of an object's GUID in these tests.
    static std::string guid(const std::string& id) {
        std::string bytes = id;
        bytes.resize(16, '.');
        return bytes;
    }

private:
    ObjectFeed& add(const std::string& id, const std::string& name, const std::string& key,
                    const std::string& value, const std::string& server) {
        tessa::ADObject object;
        object.set(nis::ADInterface::DN, "CN=" + id);
        object.set(nis::ADInterface::ENTRY_DEL_FLAG, name);
        if (!key.empty()) {
            object.set(nis::ADInterface::ENTRY_KEY, key);
        }
        if (!value.empty()) {
            object.set(nis::ADInterface::ENTRY_VALUE, value);
        }
        object.set(nis::ADInterface::SERVER_NAME, server);
        object.set("objectGUID", guid(id));
        m_objects.push_back(std::move(object));
        return *this;
    }

    std::deque<tessa::ADObject> m_objects;
};

} // namespace test
