#include "SessionLink.h"

#include "karst/Exceptions.h"

#include <utility>

namespace tessa {

namespace {

std::string operationText(const q_request& request) {
    return "operation " + std::to_string(request.operation);
}

// Raises what an answer of another status than Q_OK stands for.
[[noreturn]] void raise(const q_request& request, const q_answer& answer) {
    std::string text = messages::text(answer.q_answer_u.failure.message);
    if (text.empty()) {
        text = "the directory client daemon refused " + operationText(request) + " with status " +
               std::to_string(answer.status);
    }
    switch (answer.status) {
    case Q_NOT_FOUND:
        TESSA_THROW(NotFoundException, text);
    case Q_BAD_REQUEST:
        TESSA_THROW(BadDataException, text);
    case Q_UNAVAILABLE:
        TESSA_THROW(IPCException, text);
    case Q_NO_SUCH_CURSOR:
        TESSA_THROW(IPCException, "search or enumeration lost: " + text);
    case Q_UNKNOWN_OPERATION:
        TESSA_THROW(IPCException, "the directory client daemon does not know " +
                                      operationText(request) +
                                      "; it is of another version than this program: " + text);
    case Q_WRONG_VERSION:
        TESSA_THROW(IPCException, "the directory client daemon does not speak version " +
                                      std::to_string(QUORAD_PROTOCOL_VERSION) +
                                      " of the local protocol: " + text);
    default:
        TESSA_THROW(BadDataException, "the directory client daemon answered with the unknown "
                                      "status " +
                                          std::to_string(answer.status));
    }
}

} // namespace

q_request requestFor(q_operation operation) {
    q_request request{};
    request.operation = operation;
    return request;
}

SessionLink::SessionLink(const std::string& socketPath, bool reconnect)
    : m_client(socketPath), m_path(socketPath), m_reconnect(reconnect) {}

void SessionLink::setDeadlines(std::chrono::milliseconds call, std::chrono::milliseconds page) {
    m_callLimit = call;
    m_pageLimit = page;
}

void SessionLink::ensureConnected() {
    if (!m_client.broken()) {
        return;
    }
    m_client.close();
    m_deferred.clear();
    if (m_generation != 0 && !m_reconnect) {
        TESSA_THROW(IPCException, "the session on '" + m_path + "' is broken");
    }
    try {
        m_client.connect(CONNECT_LIMIT);
    } catch (const twine::ConnectError& error) {
        TESSA_THROW(IOException, error.what());
    }
    ++m_generation;
    try {
        hello();
    } catch (...) {
        m_client.close();
        throw;
    }
}

void SessionLink::hello() {
    q_request request = requestFor(Q_HELLO);
    request.q_request_u.protocol = QUORAD_PROTOCOL_VERSION;
    const std::unique_ptr<Answer> answer = exchange(request, Patience::Call);
    if (answer->result().protocol != QUORAD_PROTOCOL_VERSION) {
        TESSA_THROW(IPCException, "the directory client daemon speaks version " +
                                      std::to_string(answer->result().protocol) +
                                      " of the local protocol, this program version " +
                                      std::to_string(QUORAD_PROTOCOL_VERSION));
    }
}

std::unique_ptr<Answer> SessionLink::call(const q_request& request, Patience patience) {
    ensureConnected();
    sendDeferred();
    return exchange(request, patience);
}

std::unique_ptr<Answer> SessionLink::continueCall(unsigned long generation,
                                                  const q_request& request) {
    if (generation != m_generation || m_client.broken()) {
        TESSA_THROW(IPCException,
                    "search or enumeration lost with the connection to '" + m_path + "'");
    }
    sendDeferred();
    return exchange(request, Patience::Page);
}

void SessionLink::sendLater(unsigned long generation, const q_request& request) {
    if (generation == m_generation && m_client.connected()) {
        m_deferred.push_back(request);
    }
}

void SessionLink::sendDeferred() {
    while (!m_deferred.empty()) {
        const q_request request = m_deferred.back();
        m_deferred.pop_back();
        try {
            // The daemon may still be at a page that nobody asks for any more.
            exchange(request, Patience::Page);
        } catch (const TESSAException&) {
            if (!m_client.connected()) {
                throw;
            }
            // The daemon answered: it has ended already.
        }
    }
}

std::unique_ptr<Answer> SessionLink::exchange(const q_request& request, Patience patience) {
    auto answer = std::make_unique<Answer>();
    try {
        answer->frame = m_client.call(messages::encode(request),
                                      patience == Patience::Page ? m_pageLimit : m_callLimit);
    } catch (const twine::ConnectError& error) {
        TESSA_THROW(IOException, error.what());
    } catch (const twine::FrameError& error) {
        TESSA_THROW(IPCException,
                    "call to the directory client daemon failed: " + std::string(error.what()));
    } catch (const twine::CallError& error) {
        TESSA_THROW(IPCException,
                    "call to the directory client daemon lost: " + std::string(error.what()));
    }
    const bool sound = messages::decode(answer->frame, answer->message, answer->arena);
    if (sound && answer->message.status != Q_OK) {
        raise(request, answer->message);
    }
    if (!sound || answer->message.q_answer_u.result.operation != request.operation) {
        m_client.close(); // out of step: nothing that follows could be trusted
        TESSA_THROW(BadDataException,
                    "malformed answer of the directory client daemon to " + operationText(request));
    }
    return answer;
}

} // namespace tessa
