#pragma once

#include "SessionLink.h"
#include "karst/Exceptions.h"

#include <memory>
#include <utility>

namespace tessa {

/// The objects of one search; asks for the next page when those at hand have been handed out.
class PagedObjects : public ADObjectList {
public:
    /// @param first answer to Q_SEARCH
    PagedObjects(std::shared_ptr<SessionLink> link, std::unique_ptr<Answer> first);
    ~PagedObjects() override;
    PagedObjects(const PagedObjects&) = delete;
    PagedObjects& operator=(const PagedObjects&) = delete;

    bool next(ADObject& object) override;

private:
    void take(std::unique_ptr<Answer> answer, const q_page& page);

    const std::shared_ptr<SessionLink> m_link;
    const unsigned long m_generation;
    std::unique_ptr<Answer> m_answer; // the page at hand lies in it
    q_page m_page{};
    u_int m_at = 0;
};

/// What an enumeration of users or groups needs to know of the messages.
struct UserPages {
    using Item = q_user;
    static constexpr const char* NAME = "users";
    static constexpr q_operation START = Q_USERS_START;
    static constexpr q_operation NEXT = Q_USERS_NEXT;
    static constexpr q_operation END = Q_USERS_END;
    static void setFlags(q_request& request, unsigned flags) {
        request.q_request_u.user_flags = flags;
    }
    static const auto& page(const Answer& answer) { return answer.result().users; }
    static const Item* items(const Answer& answer) { return page(answer).users.users_val; }
    static u_int count(const Answer& answer) { return page(answer).users.users_len; }
};

struct GroupPages {
    using Item = q_group;
    static constexpr const char* NAME = "groups";
    static constexpr q_operation START = Q_GROUPS_START;
    static constexpr q_operation NEXT = Q_GROUPS_NEXT;
    static constexpr q_operation END = Q_GROUPS_END;
    static void setFlags(q_request& request, unsigned flags) {
        request.q_request_u.group_flags = flags;
    }
    static const auto& page(const Answer& answer) { return answer.result().groups; }
    static const Item* items(const Answer& answer) { return page(answer).groups.groups_val; }
    static u_int count(const Answer& answer) { return page(answer).groups.groups_len; }
};

/// The running enumeration of a session. One that has failed goes on failing until it is started
/// again: it never looks like one that has ended.
template <typename Pages> class Enumeration {
public:
    explicit Enumeration(std::shared_ptr<SessionLink> link) : m_link(std::move(link)) {}

    /// The daemon is asked only when the first item is: the flags come with that.
    void start() {
        end();
        m_state = State::Wanted;
    }

    void end() {
        if (m_state == State::Open || m_state == State::Failed) {
            m_link->sendLater(m_generation, requestFor(Pages::END));
        }
        m_answer.reset();
        m_state = State::Closed;
    }

    /// The next item, valid until the next call; nullptr after the last.
    const typename Pages::Item* next(unsigned flags) {
        try {
            return step(flags);
        } catch (...) {
            m_answer.reset();
            m_state = m_state == State::Closed ? State::Closed : State::Failed;
            throw;
        }
    }

    /// To be called when the items turn out to make no sense.
    void fail() { m_state = State::Failed; }

private:
    enum class State { Closed, Wanted, Open, Ended, Failed };

    const typename Pages::Item* step(unsigned flags) {
        if (m_state == State::Closed) {
            TESSA_THROW(IPCException,
                        std::string("no enumeration of ") + Pages::NAME + " has been started");
        }
        if (m_state == State::Failed) {
            TESSA_THROW(IPCException,
                        std::string("the enumeration of ") + Pages::NAME + " has failed");
        }
        if (m_state == State::Wanted) {
            q_request request = requestFor(Pages::START);
            Pages::setFlags(request, flags);
            m_link->call(request, SessionLink::Patience::Page);
            m_generation = m_link->generation();
            m_state = State::Open;
        }
        while (m_answer == nullptr || m_at == Pages::count(*m_answer)) {
            if (m_state == State::Ended) {
                return nullptr;
            }
            m_answer.reset();
            m_answer = m_link->continueCall(m_generation, requestFor(Pages::NEXT));
            m_at = 0;
            if (Pages::page(*m_answer).more == FALSE) {
                m_state = State::Ended; // the daemon has closed it; what is at hand remains
            }
        }
        return &Pages::items(*m_answer)[m_at++];
    }

    const std::shared_ptr<SessionLink> m_link;
    State m_state = State::Closed;
    unsigned long m_generation = 0;
    std::unique_ptr<Answer> m_answer;
    u_int m_at = 0;
};

} // namespace tessa
