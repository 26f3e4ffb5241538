#include "Progress.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

namespace quorad::admin {

namespace {

constexpr std::size_t DEFAULT_COLUMNS = 80;

unsigned percent(std::size_t done, std::size_t total) {
    return total == 0 ? 100 : static_cast<unsigned>(std::min(done, total) * 100 / total);
}

std::size_t terminalColumns() {
    winsize size{};
    const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : DEFAULT_COLUMNS;
}

} // namespace

Progress::Progress(std::string what, std::size_t total)
    : m_what(std::move(what)), m_total(total),
      m_visible(total > 0 && ::isatty(STDERR_FILENO) == 1) {
    show();
}

Progress::~Progress() {
    if (m_visible) {
        std::fputs("\r\x1b[K", stderr);
    }
}

void Progress::step() {
    ++m_done;
    show();
}

void Progress::show() {
    if (!m_visible || percent(m_done, m_total) == m_shown) {
        return;
    }
    m_shown = percent(m_done, m_total);
    std::fprintf(stderr, "\r%s", render(m_what, m_done, m_total, terminalColumns() - 1).c_str());
    std::fflush(stderr);
}

std::string Progress::render(const std::string& what, std::size_t done, std::size_t total,
                             std::size_t columns) {
    constexpr std::size_t LEAST = 5;
    constexpr std::size_t MOST = 50;
    const unsigned part = percent(done, total);
    std::string number = std::to_string(part);
    number.insert(0, 3 - number.size(), ' ');
    const std::string tail =
        "] " + number + "% " + std::to_string(done) + "/" + std::to_string(total);
    const std::string head = what + " [";
    const std::size_t used = head.size() + tail.size();
    const std::size_t room = columns > used ? std::min(columns - used, MOST) : 0;
    if (room < LEAST) {
        return (number + "% " + what).substr(0, columns);
    }
    const std::size_t filled = room * part / 100;
    return head + std::string(filled, '#') + std::string(room - filled, ' ') + tail;
}

} // namespace quorad::admin
