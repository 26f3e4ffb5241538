#include "LdapDirectory.h"

#include "../Filter.h"
#include "AccountCursors.h"
#include "Controllers.h"
#include "Query.h"
#include "SearchCursors.h"
#include "Store.h"
#include "Tombstones.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace quorad {

namespace {

using ldap::Controllers;
using ldap::Query;

// Whether the search asks for objects by the numbers of their changes and nothing else.
bool isEntrySearch(const SearchRequest& request, ldap::EntryRange& range) {
    if (request.scope != tessa::SCOPE_ONE_LEVEL) {
        return false;
    }
    try {
        const Filter::UsnRange bounds = Filter(request.filter).usnRange();
        range.lower = bounds.lower;
        range.upper = bounds.upper;
        range.hasLower = bounds.hasLower;
        range.hasUpper = bounds.upper != std::numeric_limits<std::int64_t>::max();
        return bounds.complete && (range.hasLower || range.hasUpper);
    } catch (const tessa::BadDataException&) {
        return false; // the controller may know more kinds of filters
    }
}

bool wantsMore(const std::vector<std::string>& attributes) {
    return std::any_of(attributes.begin(), attributes.end(), [](const std::string& name) {
        return !tessa::equalsIgnoreCase(name, "highestCommittedUSN");
    });
}

class LdapDirectory : public Directory {
public:
    LdapDirectory(const ldap::Settings& settings, const std::string& stateDirectory,
                  bool discardState)
        : m_folder(stateDirectory),
          m_store(stateDirectory + "/" + ldap::Store::FILE_NAME, discardState),
          m_controllers(settings, m_store) {
        ldap::AccountIndex::removeStale(m_folder);
    }

    tessa::ADObject fetch(const std::string& domain, const std::string& dn,
                          const std::vector<std::string>& attributes, bool allAttributes) override {
        requireDomain(domain);
        return twice([&](Deadline deadline) {
            Query query(m_controllers, deadline);
            return dn.empty() ? root(query, attributes, allAttributes)
                              : object(query, dn, attributes, allAttributes);
        });
    }

    std::unique_ptr<ObjectCursor> search(const SearchRequest& request) override {
        requireDomain(request.domain);
        m_controllers.noteActivity();
        return twice([&](Deadline deadline) -> std::unique_ptr<ObjectCursor> {
            ldap::EntryRange range;
            if (isEntrySearch(request, range)) {
                return std::make_unique<ldap::EntryCursor>(m_controllers, m_store, m_tombstones,
                                                           request, range, deadline);
            }
            return std::make_unique<ldap::PlainCursor>(m_controllers, request, deadline);
        });
    }

    std::unique_ptr<UserCursor> users(unsigned /*flags*/) override {
        m_controllers.noteActivity();
        return twice([&](Deadline deadline) {
            return std::make_unique<ldap::UsersOfDomain>(m_controllers, m_folder, m_notices,
                                                         deadline);
        });
    }
    std::unique_ptr<GroupCursor> groups(unsigned flags) override {
        m_controllers.noteActivity();
        const bool withMembers = (flags & tessa::GROUP_MEMBERSHIP) != 0;
        return twice([&](Deadline deadline) {
            return std::make_unique<ldap::GroupsOfDomain>(m_controllers, m_folder, withMembers,
                                                          m_notices, deadline);
        });
    }
    tessa::UserRecord user(const std::string& name) override {
        return twice([&](Deadline deadline) {
            Query query(m_controllers, deadline);
            return ldap::userOfDomain(query, name);
        });
    }
    tessa::GroupRecord group(const std::string& name) override {
        return twice([&](Deadline deadline) {
            Query query(m_controllers, deadline);
            return ldap::groupOfDomain(query, name);
        });
    }

    void maintain() override { m_controllers.maintain(); }

private:
    using Deadline = Controllers::Deadline;

    // One controller that fell silent is no failure while another one answers. Clients wait 30
    // seconds: two questions of at most 10 and what it takes to find somebody to ask.
    template <typename Question>
    auto twice(Question question) -> decltype(question(std::declval<Deadline>())) {
        constexpr std::chrono::seconds FIRST(10);
        constexpr std::chrono::seconds SECOND(16);
        const Deadline begin = Controllers::Clock::now();
        try {
            return question(begin + FIRST);
        } catch (const ldap::ConnectionLost&) {
            if (Controllers::Clock::now() >= begin + SECOND) {
                throw; // it took all the time there is
            }
        }
        return question(begin + SECOND);
    }

    void requireDomain(const std::string& domain) const {
        const ldap::Settings& settings = m_controllers.settings();
        const std::string name = tessa::lower(domain);
        const std::string suffix = "." + settings.domain;
        if (!name.empty() && name != settings.domain && !name.ends_with(suffix)) {
            TESSA_THROW(tessa::IPCException, "no server for domain " + domain +
                                                 ": this machine asks " + settings.domain);
        }
    }

    tessa::ADObject root(Query& query, const std::vector<std::string>& attributes,
                         bool allAttributes) {
        m_controllers.noteActivity();
        tessa::ADObject object;
        if (allAttributes || attributes.empty() || wantsMore(attributes)) {
            const std::vector<std::string> all{"*", "+"};
            object = query.ask([&](ldap::Connection& connection) {
                return connection.read("", allAttributes || attributes.empty() ? all : attributes);
            });
        }
        const ldap::RootObject state =
            query.ask([&](ldap::Connection&) { return m_controllers.readRoot(query.lease()); });
        object.set("_dn", std::string());
        object.set("_server", query.server());
        object.set("dnsHostName", query.server());
        object.set("highestCommittedUSN", std::to_string(state.usn + query.epoch().shift));
        return object;
    }

    static tessa::ADObject object(Query& query, const std::string& dn,
                                  const std::vector<std::string>& attributes, bool allAttributes) {
        tessa::ADObject object = query.ask([&](ldap::Connection& connection) {
            return connection.read(dn, ldap::askedAttributes(attributes, allAttributes));
        });
        ldap::shiftNumbers(object, query.epoch());
        return object;
    }

    const std::string m_folder;
    ldap::Store m_store;
    ldap::Tombstones m_tombstones;
    ldap::AccountNotices m_notices;
    Controllers m_controllers;
};

} // namespace

std::unique_ptr<Directory> makeLdapDirectory(const ldap::Settings& settings,
                                             const std::string& stateDirectory, bool discardState) {
    return std::make_unique<LdapDirectory>(settings, stateDirectory, discardState);
}

} // namespace quorad
