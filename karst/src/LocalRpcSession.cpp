#include "karst/LocalRpcSession.h"

#include "SessionPages.h"
#include "karst/Exceptions.h"

#include <boost/make_shared.hpp>

#include <utility>

namespace tessa {

using messages::bytes;

PagedObjects::PagedObjects(std::shared_ptr<SessionLink> link, std::unique_ptr<Answer> first)
    : m_link(std::move(link)), m_generation(m_link->generation()) {
    const q_page page = first->result().page;
    take(std::move(first), page);
}

PagedObjects::~PagedObjects() {
    if (m_page.cursor != 0) {
        q_request request = requestFor(Q_SEARCH_END);
        request.q_request_u.end_cursor = m_page.cursor;
        m_link->sendLater(m_generation, request);
    }
}

void PagedObjects::take(std::unique_ptr<Answer> answer, const q_page& page) {
    m_page = page;
    m_answer = std::move(answer);
    m_at = 0;
}

bool PagedObjects::next(ADObject& object) {
    while (m_at == m_page.objects.objects_len) {
        if (m_page.cursor == 0) {
            return false;
        }
        q_request request = requestFor(Q_SEARCH_NEXT);
        request.q_request_u.next_cursor = m_page.cursor;
        auto answer = m_link->continueCall(m_generation, request);
        const q_page page = answer->result().next_page;
        take(std::move(answer), page);
    }
    object = messages::fromMessage(m_page.objects.objects_val[m_at++]);
    return true;
}

class LocalRpcSession::Impl {
public:
    Impl(const std::string& socketPath, bool reconnect)
        : link(std::make_shared<SessionLink>(socketPath, reconnect)), users(link), groups(link) {}

    boost::shared_ptr<ADObjectList> search(const q_search& search) const {
        q_request request = requestFor(Q_SEARCH);
        request.q_request_u.search = search;
        auto first = link->call(request, SessionLink::Patience::Page);
        return boost::make_shared<PagedObjects>(link, std::move(first));
    }

    GroupRecord nextGroup(unsigned flags);

    // Shared: a search that outlives the session by mistake must not reach into freed memory.
    const std::shared_ptr<SessionLink> link;
    Enumeration<UserPages> users;
    Enumeration<GroupPages> groups;
};

namespace {

// The views of a list of names; refers to the list.
std::vector<q_bytes> views(const std::vector<std::string>& texts) {
    std::vector<q_bytes> items;
    items.reserve(texts.size());
    for (const std::string& text : texts) {
        items.push_back(bytes(text));
    }
    return items;
}

} // namespace

// A group too large for a page arrives in pieces that name the same group.
GroupRecord LocalRpcSession::Impl::nextGroup(unsigned flags) {
    const q_group* piece = groups.next(flags);
    if (piece == nullptr) {
        TESSA_THROW(EndOfListException, "no more groups");
    }
    GroupRecord group = messages::fromMessage(*piece);
    while (piece->continues != FALSE) {
        piece = groups.next(flags);
        if (piece == nullptr || messages::view(piece->name) != group.name) {
            groups.fail();
            TESSA_THROW(BadDataException,
                        "the rest of group '" + group.name + "' is missing from the enumeration");
        }
        messages::appendMembers(*piece, group);
    }
    return group;
}

LocalRpcSession::LocalRpcSession(const std::string& socketPath, bool connectNow, bool reconnect)
    : m_impl(std::make_unique<Impl>(socketPath, reconnect)) {
    if (connectNow) {
        m_impl->link->ensureConnected();
    }
}

LocalRpcSession::~LocalRpcSession() = default;

void LocalRpcSession::setDeadlines(std::chrono::milliseconds call, std::chrono::milliseconds page) {
    m_impl->link->setDeadlines(call, page);
}

ADObject LocalRpcSession::ldapFetch(const std::string& domain, const std::string& dn,
                                    const std::vector<std::string>& attributes,
                                    bool allAttributes) {
    std::vector<q_bytes> names = views(attributes);
    q_fetch fetch{};
    fetch.domain = bytes(domain);
    fetch.dn = bytes(dn);
    fetch.attributes.attributes_len = static_cast<u_int>(names.size());
    fetch.attributes.attributes_val = names.data();
    fetch.all_attributes = allAttributes || attributes.empty() ? TRUE : FALSE;
    q_request request = requestFor(Q_FETCH);
    request.q_request_u.fetch = fetch;
    return messages::fromMessage(m_impl->link->call(request)->result().object);
}

boost::shared_ptr<ADObjectList>
LocalRpcSession::ldapSearch(const std::string& domain, const std::string& filter,
                            const std::string& base, const std::vector<std::string>& attributes,
                            int scope, int sizeLimit, bool allAttributes) {
    if (sizeLimit < 0) {
        TESSA_THROW(BadDataException, "negative size limit of a search");
    }
    std::vector<q_bytes> names = views(attributes);
    q_search search{};
    search.domain = bytes(domain);
    search.filter = bytes(filter);
    search.base = bytes(base);
    search.attributes.attributes_len = static_cast<u_int>(names.size());
    search.attributes.attributes_val = names.data();
    search.scope = scope;
    search.size_limit = static_cast<unsigned>(sizeLimit);
    search.all_attributes = allAttributes || attributes.empty() ? TRUE : FALSE;
    return m_impl->search(search);
}

// Every search travels page by page; whether the directory itself pages is the daemon's business.
boost::shared_ptr<ADObjectList> LocalRpcSession::ldapPagedSearch(
    const std::string& domain, const std::string& filter, const std::string& base,
    const std::vector<std::string>& attributes, int scope, int sizeLimit, bool allAttributes) {
    return ldapSearch(domain, filter, base, attributes, scope, sizeLimit, allAttributes);
}

std::string LocalRpcSession::getSystemInfo(int code) {
    q_request request = requestFor(Q_SYSTEM_INFO);
    request.q_request_u.info_code = code;
    return messages::text(m_impl->link->call(request)->result().info);
}

std::string LocalRpcSession::loadSetting(const std::string& name) {
    q_request request = requestFor(Q_SETTING);
    request.q_request_u.setting = bytes(name);
    return messages::text(m_impl->link->call(request)->result().setting);
}

void LocalRpcSession::startListUser() {
    m_impl->users.start();
}

UserRecord LocalRpcSession::getUser2(const std::string& name, unsigned flags) {
    if (name != NEXT_ENTRY) {
        q_request request = requestFor(Q_USER);
        request.q_request_u.user_name = bytes(name);
        return messages::fromMessage(m_impl->link->call(request)->result().user);
    }
    const q_user* user = m_impl->users.next(flags);
    if (user == nullptr) {
        TESSA_THROW(EndOfListException, "no more users");
    }
    return messages::fromMessage(*user);
}

void LocalRpcSession::endListUser() {
    m_impl->users.end();
}

// The daemon decides by itself what it can answer from memory: `cached` only permits it.
void LocalRpcSession::startListGroup(bool /*cached*/) {
    m_impl->groups.start();
}

GroupRecord LocalRpcSession::getGroup2(const std::string& name, unsigned flags) {
    if (name == NEXT_ENTRY) {
        return m_impl->nextGroup(flags);
    }
    q_request request = requestFor(Q_GROUP);
    request.q_request_u.group_name = bytes(name);
    return messages::fromMessage(m_impl->link->call(request)->result().group);
}

void LocalRpcSession::endListGroup() {
    m_impl->groups.end();
}

} // namespace tessa
