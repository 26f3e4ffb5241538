#include "Connection.h"

#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace quorad::ldap {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* SHOW_DELETED = "1.2.840.113556.1.4.417";
constexpr const char* DOMAIN_SCOPE = "1.2.840.113556.1.4.1339"; // no referrals, please

struct FreeControl {
    void operator()(LDAPControl* control) const { ::ldap_control_free(control); }
};

LDAPControl controlOf(const char* oid, bool critical) {
    LDAPControl control{};
    control.ldctl_oid = const_cast<char*>(oid); // NOLINT: the library only reads it
    control.ldctl_iscritical = critical ? 1 : 0;
    return control;
}

} // namespace

PagedSearch::PagedSearch(Connection& connection, std::string base, std::string filter,
                         std::vector<std::string> attributes, const SearchOptions& options)
    : m_connection(connection), m_base(std::move(base)), m_filter(std::move(filter)),
      m_attributes(std::move(attributes)), m_options(options) {}

int PagedSearch::start() {
    LDAP* const ldap = m_connection.m_ldap;
    berval cookie{};
    cookie.bv_len = m_cookie.size();
    cookie.bv_val = m_cookie.data();
    unsigned size = m_connection.m_settings.pageSize;
    if (m_options.pageSize != 0) {
        size = std::min(size, m_options.pageSize);
    }
    if (m_options.sizeLimit != 0) {
        size = std::min<unsigned>(size, m_options.sizeLimit - static_cast<unsigned>(m_count));
    }
    LDAPControl* made = nullptr;
    const int code =
        ::ldap_create_page_control(ldap, static_cast<ber_int_t>(size), &cookie, 1, &made);
    if (code != LDAP_SUCCESS) {
        m_connection.fail(code, "search below '" + m_base + "'");
    }
    const std::unique_ptr<LDAPControl, FreeControl> paging(made);
    LDAPControl scope = controlOf(DOMAIN_SCOPE, false);
    LDAPControl deleted = controlOf(SHOW_DELETED, true);
    std::array<LDAPControl*, 4> controls{paging.get(), &scope,
                                         m_options.showDeleted ? &deleted : nullptr, nullptr};
    std::vector<std::string> names = m_attributes;
    std::vector<char*> pointers;
    pointers.reserve(names.size() + 1);
    for (std::string& name : names) {
        pointers.push_back(name.data());
    }
    pointers.push_back(nullptr);
    timeval limit{static_cast<std::time_t>(m_connection.m_settings.searchTimeout.count()), 0};
    int message = 0;
    m_connection.requireSent(::ldap_search_ext(ldap, m_base.c_str(), m_options.scope,
                                               m_filter.c_str(),
                                               names.empty() ? nullptr : pointers.data(), 0,
                                               controls.data(), nullptr, &limit, 0, &message),
                             "search below '" + m_base + "' for '" + m_filter + "'");
    return message;
}

bool PagedSearch::nextPage(std::vector<tessa::ADObject>& objects) {
    if (!m_more) {
        return false;
    }
    const std::size_t before = objects.size();
    try {
        collect(start(), objects);
    } catch (...) {
        m_more = false;
        throw;
    }
    m_count += objects.size() - before;
    if (m_options.sizeLimit != 0 && m_count >= m_options.sizeLimit) {
        m_more = false;
    }
    return m_more;
}

void PagedSearch::collect(int message, std::vector<tessa::ADObject>& objects) {
    const std::string what = "search below '" + m_base + "'";
    const auto deadline = Clock::now() + m_connection.m_settings.searchTimeout;
    for (;;) {
        LDAPMessage* const answer = m_connection.await(message, LDAP_MSG_ONE, deadline, what);
        const std::unique_ptr<LDAPMessage, int (*)(LDAPMessage*)> owner(answer, ::ldap_msgfree);
        const int kind = ::ldap_msgtype(answer);
        if (kind == LDAP_RES_SEARCH_ENTRY) {
            objects.push_back(m_connection.toObject(answer));
        } else if (kind == LDAP_RES_SEARCH_RESULT) {
            readResult(answer);
            return;
        } // references to other domains are not followed
    }
}

void PagedSearch::readResult(LDAPMessage* result) {
    LDAP* const ldap = m_connection.m_ldap;
    int code = LDAP_SUCCESS;
    LDAPControl** controls = nullptr;
    const int parsed =
        ::ldap_parse_result(ldap, result, &code, nullptr, nullptr, nullptr, &controls, 0);
    const std::unique_ptr<LDAPControl*, void (*)(LDAPControl**)> owner(controls,
                                                                       ::ldap_controls_free);
    if (parsed != LDAP_SUCCESS || code != LDAP_SUCCESS) {
        m_connection.failQuestion(parsed != LDAP_SUCCESS ? parsed : code,
                                  "search below '" + m_base + "' for '" + m_filter + "'", m_base);
    }
    m_cookie.clear();
    LDAPControl* const page = ::ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, controls, nullptr);
    if (page != nullptr) {
        ber_int_t estimate = 0;
        berval cookie{};
        if (::ldap_parse_pageresponse_control(ldap, page, &estimate, &cookie) == LDAP_SUCCESS) {
            m_cookie.assign(cookie.bv_val == nullptr ? "" : cookie.bv_val, cookie.bv_len);
            ::ber_memfree(cookie.bv_val);
        } else {
            m_connection.fail(LDAP_DECODING_ERROR, "search below '" + m_base + "'");
        }
    }
    m_more = !m_cookie.empty();
}

} // namespace quorad::ldap
