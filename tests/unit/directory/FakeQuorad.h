#pragma once

#include "unit/karst/ScriptedDaemon.h"

#include <karst/LocalRpcSession.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace test {

/// A directory client daemon in the test's own process, at the real one's socket, whose answers and
/// failures the test sets. Needs a private namespace. The members may be set at any time through
/// set(); the daemon's thread reads them under the same mutex.
class FakeQuorad {
public:
    enum class Outcome { FINE, MISSING, UNAVAILABLE, BREAKS_AFTER_A_PAGE };

    struct Search {
        Outcome outcome = Outcome::FINE;
        std::vector<tessa::ADObject> objects;
        std::string onlyFilter; ///< other filters find nothing; empty: all do
    };
    struct State {
        std::map<std::string, std::string> settings{
            {"zonename", "CN=zoneA,CN=Zones,DC=example,DC=com"},
            {"hostname", "client"},
            {"zoneguid", "00112233-4455-6677-8899-aabbccddeeff"}};
        std::string hierarchy = "CN=zoneA,CN=Zones,DC=example,DC=com\n";
        std::string nisDomain; ///< of the zone object; empty: none
        bool zoneObjectReadable = true;
        std::map<std::string, std::string> servers; ///< by domain; absent: cannot be asked
        long highUSN = 1000;
        std::map<std::string, Search> searches; ///< by base
        std::vector<std::string> users;
        bool usersBreak = false; ///< behind the last of them
        std::vector<std::string> groups;
        // What was asked last.
        std::string filter;
        std::string domain;
        std::vector<std::string> attributes;
        int scope = -1;
        std::function<void()> onBreak; ///< called when a search breaks off
    };

    FakeQuorad() : m_daemon(tessa::QUORAD_SOCKET) {
        m_daemon.start([this](const q_request& request) { return answer(request); });
    }

    /// Lets the test look at and change the state.
    template <typename Change> void set(const Change& change) {
        const std::lock_guard lock(m_mutex);
        change(m_state);
    }
    State state() {
        const std::lock_guard lock(m_mutex);
        return m_state;
    }

    /// A map object (or any other) as a search delivers it.
    static tessa::ADObject object(const std::string& cn, const std::string& server) {
        tessa::ADObject made;
        made.set("_dn", "CN=" + cn + ",CN=nismaps");
        made.set("_server", server);
        made.set("cn", cn);
        return made;
    }
    /// An entry of a map.
    static tessa::ADObject entry(const std::string& id, const std::string& key,
                                 const std::string& value, const std::string& server) {
        tessa::ADObject made = object("entry" + id, server);
        std::string guid = id;
        guid.resize(16, '.');
        made.set("objectGUID", guid);
        made.set("description", key);
        made.set("adminDescription", value);
        return made;
    }

private:
    using Daemon = tessa::testing::ScriptedDaemon;

    std::string answer(const q_request& request) {
        const std::lock_guard lock(m_mutex);
        switch (request.operation) {
        case Q_SETTING:
            return setting(request);
        case Q_SYSTEM_INFO: {
            q_answer result = Daemon::ok(request);
            result.q_answer_u.result.q_result_u.info = tessa::messages::bytes(m_state.hierarchy);
            return tessa::messages::encode(result);
        }
        case Q_FETCH:
            return fetch(request);
        case Q_SEARCH:
        case Q_SEARCH_NEXT:
            return search(request);
        case Q_USERS_NEXT:
            return m_state.usersBreak && m_state.users.empty()
                       ? Daemon::failure(Q_UNAVAILABLE, "no more answers")
                       : Daemon::users(request, m_state.usersBreak, take(m_state.users));
        case Q_GROUPS_NEXT: {
            std::vector<Daemon::GroupPiece> pieces;
            for (const std::string& name : m_state.groups) {
                pieces.push_back({name, {"member"}, false});
            }
            return Daemon::groups(request, false, pieces);
        }
        default:
            return Daemon::done(request);
        }
    }

    static std::vector<std::string> take(std::vector<std::string>& names) {
        std::vector<std::string> taken;
        taken.swap(names);
        return taken;
    }

    std::string setting(const q_request& request) {
        const auto found =
            m_state.settings.find(tessa::messages::text(request.q_request_u.setting));
        return found == m_state.settings.end() ? Daemon::failure(Q_NOT_FOUND, "no such setting")
                                               : Daemon::setting(request, found->second);
    }

    std::string fetch(const q_request& request) {
        const std::string dn = tessa::messages::text(request.q_request_u.fetch.dn);
        tessa::ADObject made;
        if (dn.empty()) {
            const auto server =
                m_state.servers.find(tessa::messages::text(request.q_request_u.fetch.domain));
            if (server == m_state.servers.end()) {
                return Daemon::failure(Q_UNAVAILABLE, "no controller answers");
            }
            made.set("_server", server->second);
            made.set("highestCommittedUSN", std::to_string(m_state.highUSN));
        } else {
            if (!m_state.zoneObjectReadable) {
                return Daemon::failure(Q_UNAVAILABLE, "no controller answers");
            }
            made.set("_dn", dn);
            if (!m_state.nisDomain.empty()) {
                made.set(tessa::TESSA_ZONE_SFU, m_state.nisDomain);
            }
        }
        tessa::messages::Arena arena;
        q_answer result = Daemon::ok(request);
        result.q_answer_u.result.q_result_u.object = tessa::messages::toMessage(made, arena);
        return tessa::messages::encode(result);
    }

    std::string search(const q_request& request) {
        if (request.operation == Q_SEARCH_NEXT) {
            if (m_state.onBreak) {
                m_state.onBreak();
            }
            return Daemon::failure(Q_UNAVAILABLE, "the connection broke");
        }
        const q_search& asked = request.q_request_u.search;
        m_state.filter = tessa::messages::text(asked.filter);
        m_state.domain = tessa::messages::text(asked.domain);
        m_state.scope = asked.scope;
        m_state.attributes = tessa::messages::fromMessage(asked.attributes.attributes_val,
                                                          asked.attributes.attributes_len);
        const auto found = m_state.searches.find(tessa::messages::text(asked.base));
        if (found == m_state.searches.end() || found->second.outcome == Outcome::MISSING) {
            return Daemon::failure(Q_NOT_FOUND, "no such object");
        }
        static const Search nothing;
        const std::string& only = found->second.onlyFilter;
        const Search& known = only.empty() || only == m_state.filter ? found->second : nothing;
        if (known.outcome == Outcome::UNAVAILABLE) {
            return Daemon::failure(Q_UNAVAILABLE, "no controller answers");
        }
        tessa::messages::Arena arena;
        q_page page{};
        page.cursor = known.outcome == Outcome::BREAKS_AFTER_A_PAGE ? 1 : 0;
        page.objects.objects_len = static_cast<u_int>(known.objects.size());
        page.objects.objects_val = arena.array<q_object>(known.objects.size());
        for (std::size_t i = 0; i < known.objects.size(); ++i) {
            page.objects.objects_val[i] = tessa::messages::toMessage(known.objects[i], arena);
        }
        q_answer result = Daemon::ok(request);
        result.q_answer_u.result.q_result_u.page = page;
        return tessa::messages::encode(result);
    }

    std::mutex m_mutex;
    State m_state;
    Daemon m_daemon;
};

} // namespace test
