#pragma once

#include "Backend.h"
#include "Pager.h"
#include "Reporter.h"

#include <karst/Messages.h>
#include <twine/Server.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quorad {

/// Answers the requests of one connection from the back end in force. What a connection has open
/// (searches, one enumeration of users and one of groups) is bounded, belongs to it and ends with
/// it. Failures of the directory are answers, never the end of the connection; a search or an
/// enumeration that has failed is closed, so that it cannot be taken for one that has ended.
/// While the client works on a page, the next one is made, so that neither waits for the other.
/// Used by the connection's thread alone; what it refers to outlives it.
class Service : public twine::Conversation {
public:
    static constexpr std::size_t MAX_SEARCHES = 16;

    /// @param client who asks, for messages
    Service(CurrentBackend& backend, DirectoryHealth& health, Reporter& reporter,
            std::string client);

    /// Always an answer, whatever the request is.
    std::string answer(std::string_view frame) override;
    /// Makes the page that the client is likely to ask for next. One at most is kept.
    void answered() override;

private:
    using Handler = std::string (Service::*)(const q_request&);
    /// One row for each operation.
    struct Row {
        unsigned operation;
        const char* name;
        Handler handler;
        bool asksDirectory;
    };
    static const Row* rowOf(unsigned operation);

    /// Names the page of a search or an enumeration that comes next.
    struct Next {
        unsigned operation = 0;
        unsigned cursor = 0; ///< 0 unless it is of a search

        bool operator==(const Next&) const = default;
    };
    /// A page that was made before it was asked for, or why it could not be made.
    struct Prepared {
        Next page;
        std::string frame;
    };

    std::string dispatch(const Row& row, std::string_view frame);
    std::string respond(const Row& row, const q_request& request);
    std::string ask(const Row& row, const q_request& request);
    std::string refuse(const Row* row, q_status status, const std::string& message) const;

    std::string hello(const q_request& request);
    std::string setting(const q_request& request);
    std::string systemInfo(const q_request& request);
    std::string fetch(const q_request& request);
    std::string search(const q_request& request);
    std::string searchNext(const q_request& request);
    std::string searchEnd(const q_request& request);
    std::string usersStart(const q_request& request);
    std::string usersNext(const q_request& request);
    std::string usersEnd(const q_request& request);
    std::string groupsStart(const q_request& request);
    std::string groupsNext(const q_request& request);
    std::string groupsEnd(const q_request& request);
    std::string user(const q_request& request);
    std::string group(const q_request& request);

    tessa::ADObject fetchObject(Backend& backend, const q_fetch& wanted);
    std::optional<std::string> takePrepared(const q_request& request);
    bool forgetPrepared(const Next& page);
    std::string searchPage(unsigned operation, unsigned cursor);
    q_page fillPage(Pager<tessa::ADObject>& pager, tessa::messages::Arena& arena);
    q_user_page fillUsers(tessa::messages::Arena& arena);
    q_group_page fillGroups(tessa::messages::Arena& arena);
    bool addGroupPiece(q_group_page& page, std::size_t& bytes, tessa::messages::Arena& arena);

    CurrentBackend& m_backend;
    DirectoryHealth& m_health;
    Reporter& m_reporter;
    const std::string m_client;
    const boost::shared_ptr<tessa::Logger> m_logger;

    bool m_greeted = false;
    bool m_fromMemory = false;    ///< the answer at hand was made without the directory
    std::optional<Next> m_likely; ///< what the client asks for next if it goes on
    std::optional<Prepared> m_prepared;
    unsigned m_lastCursor = 0;
    std::map<unsigned, Pager<tessa::ADObject>> m_searches;
    std::optional<Pager<tessa::UserRecord>> m_users;
    std::optional<Pager<tessa::GroupRecord>> m_groups;
    std::size_t m_firstMember = 0; ///< where the next piece of the group at hand begins
};

} // namespace quorad
