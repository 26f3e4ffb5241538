#include "SocketAllow.h"

#include "Backend.h"
#include "Reporter.h"

#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>

#include <pwd.h>
#include <unistd.h>

namespace quorad {

namespace {

std::optional<uid_t> userNumber(const std::string& user) {
    uid_t number = 0;
    const char* const end = user.data() + user.size();
    const auto [stop, error] = std::from_chars(user.data(), end, number);
    if (error == std::errc() && stop == end && number != std::numeric_limits<uid_t>::max()) {
        return number;
    }
    constexpr std::size_t MOST = 1024UL * 1024;
    for (std::vector<char> buffer(4096); buffer.size() <= MOST; buffer.resize(buffer.size() * 4)) {
        passwd entry{};
        passwd* found = nullptr;
        const int failure =
            ::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (failure != ERANGE) {
            return found == nullptr ? std::nullopt : std::optional<uid_t>(entry.pw_uid);
        }
    }
    return std::nullopt;
}

} // namespace

void SocketAllow::set(const std::vector<std::string>& users) {
    std::set<uid_t> numbers;
    for (const std::string& user : users) {
        if (const std::optional<uid_t> number = userNumber(user)) {
            numbers.insert(*number);
        } else {
            const auto logger = tessa::Logger::get(LOGGER_NAME);
            KARST_LOG(logger, tessa::LOG_WARN, "%s: there is no user '%s'", PROP_SOCKET_ALLOW,
                      tessa::printable(user).c_str());
        }
    }
    const tessa::Lock lock(m_mutex);
    m_users = std::move(numbers);
}

bool SocketAllow::permits(uid_t uid) const {
    if (uid == 0 || uid == ::geteuid()) {
        return true;
    }
    const tessa::Lock lock(m_mutex);
    return m_users.count(uid) != 0;
}

unsigned SocketAllow::socketMode() const {
    const tessa::Lock lock(m_mutex);
    return m_users.empty() ? 0600 : 0666;
}

} // namespace quorad
