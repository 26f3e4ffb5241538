#pragma once

#include "Controllers.h"

#include <memory>
#include <string>
#include <vector>

namespace quorad::ldap {

/// Searches over one connection, one after the other. When the controller stops answering it is
/// reported to those who choose controllers. One thread at a time.
class Query {
public:
    /// @param deadline for getting a connection
    Query(Controllers& controllers, Controllers::Deadline deadline);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Controllers::Lease& lease() { return m_lease; }
    Connection& connection() { return *m_lease; }
    const std::string& server() const { return m_lease->server(); }
    const Epoch& epoch() const { return m_lease.epoch(); }

    void start(const std::string& base, const std::string& filter,
               const std::vector<std::string>& attributes, const SearchOptions& options);
    /// As PagedSearch.
    bool nextPage(std::vector<tessa::ADObject>& objects);
    bool running() const { return m_search != nullptr; }
    /// Runs a question over the connection.
    template <typename Question> auto ask(Question question) {
        try {
            return question(*m_lease);
        } catch (const ConnectionLost& e) {
            m_controllers.lost(m_lease, e);
            throw;
        }
    }

private:
    Controllers& m_controllers;
    Controllers::Lease m_lease;
    std::unique_ptr<PagedSearch> m_search;
};

/// Attribute names to ask a controller for: without those that are ours, with the GUID, and group
/// members by ranges.
std::vector<std::string> askedAttributes(const std::vector<std::string>& attributes,
                                         bool allAttributes);
/// Adds the epoch's shift to the sequence numbers of an object.
void shiftNumbers(tessa::ADObject& object, const Epoch& epoch);

} // namespace quorad::ldap
