#include "Query.h"

#include "Text.h"

#include <karst/Text.h>

#include <algorithm>

namespace quorad::ldap {

Query::Query(Controllers& controllers, Controllers::Deadline deadline)
    : m_controllers(controllers), m_lease(controllers.lease(deadline)) {}

Query::~Query() {
    if (m_search != nullptr) {
        m_lease.discard(); // the controller still keeps what it would need to go on
    }
}

void Query::start(const std::string& base, const std::string& filter,
                  const std::vector<std::string>& attributes, const SearchOptions& options) {
    m_search = m_lease->search(base, filter, attributes, options);
}

bool Query::nextPage(std::vector<tessa::ADObject>& objects) {
    try {
        const bool more = ask([&](Connection&) { return m_search->nextPage(objects); });
        m_controllers.answered(m_lease);
        if (!more) {
            m_search.reset();
        }
        return more;
    } catch (...) {
        if (m_lease->usable()) {
            m_search.reset();
        }
        throw;
    }
}

std::vector<std::string> askedAttributes(const std::vector<std::string>& attributes,
                                         bool allAttributes) {
    std::vector<std::string> asked;
    if (allAttributes || attributes.empty() ||
        std::find(attributes.begin(), attributes.end(), "*") != attributes.end()) {
        asked.emplace_back("*");
    }
    for (const std::string& name : attributes) {
        if (name.empty() || name.front() == '_' || name == "*") {
            continue;
        }
        asked.push_back(tessa::equalsIgnoreCase(name, "member") ? rangeFrom(name, 0) : name);
    }
    asked.emplace_back("objectGUID");
    return asked;
}

void shiftNumbers(tessa::ADObject& object, const Epoch& epoch) {
    if (epoch.shift == 0) {
        return;
    }
    for (const char* name : {"uSNChanged", "uSNCreated", "highestCommittedUSN"}) {
        if (object.attributeExists(name, true)) {
            object.set(name, (object[name].asInt64() + tessa::Int64(epoch.shift)).toString());
        }
    }
}

} // namespace quorad::ldap
