#include "twine/Client.h"

#include "Waiting.h"
#include "twine/Frame.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

#include <unistd.h>

namespace twine {

Client::Client(std::string socketPath) : m_path(std::move(socketPath)) {}

Client::~Client() {
    close();
}

void Client::close() {
    if (m_socket >= 0) {
        ::close(m_socket);
        m_socket = -1;
    }
}

void Client::connect(std::chrono::milliseconds limit) {
    close();
    try {
        m_socket = connectTo(m_path, Clock::now() + limit);
    } catch (const std::invalid_argument& error) {
        throw ConnectError(error.what());
    }
    if (m_socket < 0) {
        throw ConnectError("cannot connect to '" + m_path + "': " + systemText(errno));
    }
}

bool Client::broken() const {
    if (m_socket < 0) {
        return true;
    }
    // Between calls the other side has nothing to say: readable means closed, or out of step.
    pollfd entry{m_socket, POLLIN, 0};
    return ::poll(&entry, 1, 0) != 0;
}

std::string Client::call(std::string_view request, std::chrono::milliseconds limit) {
    if (!connected()) {
        throw ConnectError("not connected to '" + m_path + "'");
    }
    const Clock::time_point deadline = Clock::now() + limit;
    std::string answer;
    try {
        writeFrame(m_socket, request, deadline);
        if (readFrame(m_socket, answer, deadline)) {
            return answer;
        }
    } catch (...) {
        close();
        throw;
    }
    close();
    throw CallError("the other side closed the connection without an answer");
}

} // namespace twine
