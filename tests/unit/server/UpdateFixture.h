#pragma once

#include "unit/server/ServerFixture.h"

#include <memory>
#include <string>
#include <vector>

namespace test {

/// A server that is kept in step with a real directory.
class UpdateFixture : public DirectoryFixture {
protected:
    void start(const std::string& ldif) {
        startDirectory(ldif);
        m_server = makeServer();
    }
    std::string update(bool rebuild, bool refresh) {
        return logOf([&] { m_server->update(rebuild, refresh); });
    }
    std::string refresh() { return update(false, true); }
    std::vector<std::string> list() const { return mapList(*m_server); }
    std::string value(const char* map, const std::string& key) const {
        try {
            return m_server->match(DOMAIN, map, key).value;
        } catch (const nis::UnknownKey&) {
            return "(no key)";
        } catch (const nis::UnknownMap&) {
            return "(no map)";
        }
    }

    std::unique_ptr<nis::ADNisServer> m_server;
    const std::vector<std::string> m_all{"auto.home",     "group.bygid",  "group.byname",
                                         "hosts",         "hosts.byaddr", "hosts.byname",
                                         "passwd.byname", "passwd.byuid"};
};

} // namespace test
