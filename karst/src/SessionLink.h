#pragma once

#include "karst/Messages.h"

#include <twine/Client.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace tessa {

/// How long the daemon may take: for one question, and for a page of a search or an enumeration,
/// which may be the directory's own work of minutes.
inline constexpr std::chrono::seconds CALL_LIMIT(30);
inline constexpr std::chrono::seconds PAGE_LIMIT(120);
inline constexpr std::chrono::seconds CONNECT_LIMIT(5);

/// An answer and the memory that its views and arrays lie in.
struct Answer {
    std::string frame;
    messages::Arena arena;
    q_answer message{};

    const auto& result() const { return message.q_answer_u.result.q_result_u; }
};

/// A request of that operation, its argument zeroed.
q_request requestFor(q_operation operation);

/// The connection under a session. Shared by the session and its searches; one thread at a time.
///
/// Each connection made has a number (generation): what the daemon keeps for a connection, such as
/// a running search, is gone with it, so whatever continues such a thing names the generation.
class SessionLink {
public:
    /// @param reconnect connect again after a broken connection
    SessionLink(const std::string& socketPath, bool reconnect);

    void setDeadlines(std::chrono::milliseconds call, std::chrono::milliseconds page);
    void ensureConnected();
    unsigned long generation() const { return m_generation; }

    /// What a call may take.
    enum class Patience { Call, Page };

    /// One call, connecting first when needed. Returns only answers of status Q_OK to this
    /// operation.
    /// @throws as LocalRpcSession
    std::unique_ptr<Answer> call(const q_request& request, Patience patience = Patience::Call);
    /// The same for the next page of something that was begun on the connection of that generation.
    /// @throws IPCException also when that connection is gone
    std::unique_ptr<Answer> continueCall(unsigned long generation, const q_request& request);
    /// Sends the request before the next call if that goes over the same connection; otherwise it
    /// has no meaning any more. For ending what nobody wants to continue.
    void sendLater(unsigned long generation, const q_request& request);

private:
    void hello();
    void sendDeferred();
    std::unique_ptr<Answer> exchange(const q_request& request, Patience patience);

    twine::Client m_client;
    const std::string m_path;
    const bool m_reconnect;
    std::chrono::milliseconds m_callLimit = CALL_LIMIT;
    std::chrono::milliseconds m_pageLimit = PAGE_LIMIT;
    unsigned long m_generation = 0;    // 0: never connected
    std::vector<q_request> m_deferred; // without byte strings, so nothing to keep alive
};

} // namespace tessa
