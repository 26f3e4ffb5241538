// How Service makes pages before they are asked for.

#include "Service.h"

#include <utility>

namespace quorad {

void Service::answered() {
    const std::optional<Next> likely = std::exchange(m_likely, std::nullopt);
    if (!likely || m_prepared) {
        return;
    }
    q_request request{};
    request.operation = likely->operation;
    if (likely->operation == Q_SEARCH_NEXT) {
        request.q_request_u.next_cursor = likely->cursor;
    }
    m_prepared = Prepared{*likely, respond(*rowOf(likely->operation), request)};
}

// What was likely when the page was made is so when it is handed out.
std::optional<std::string> Service::takePrepared(const q_request& request) {
    const unsigned cursor =
        request.operation == Q_SEARCH_NEXT ? request.q_request_u.next_cursor : 0;
    if (!m_prepared || m_prepared->page != Next{request.operation, cursor}) {
        return std::nullopt;
    }
    std::string frame = std::move(m_prepared->frame);
    m_prepared.reset();
    return frame;
}

// True when there was one: to the client, its search is still open, even if it has ended here.
bool Service::forgetPrepared(const Next& page) {
    if (!m_prepared || m_prepared->page != page) {
        return false;
    }
    m_prepared.reset();
    return true;
}

} // namespace quorad
