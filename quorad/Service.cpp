#include "Service.h"

#include "Answers.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <array>
#include <utility>

namespace quorad {

namespace messages = tessa::messages;

const Service::Row* Service::rowOf(unsigned operation) {
    static constexpr std::array<Row, 15> ROWS = {{
        {Q_HELLO, "hello", &Service::hello, false},
        {Q_SETTING, "setting", &Service::setting, false},
        {Q_SYSTEM_INFO, "system information", &Service::systemInfo, false},
        {Q_FETCH, "fetch", &Service::fetch, true},
        {Q_SEARCH, "search", &Service::search, true},
        {Q_SEARCH_NEXT, "next page of a search", &Service::searchNext, true},
        {Q_SEARCH_END, "end of a search", &Service::searchEnd, false},
        {Q_USERS_START, "start of users", &Service::usersStart, true},
        {Q_USERS_NEXT, "next users", &Service::usersNext, true},
        {Q_USERS_END, "end of users", &Service::usersEnd, false},
        {Q_GROUPS_START, "start of groups", &Service::groupsStart, true},
        {Q_GROUPS_NEXT, "next groups", &Service::groupsNext, true},
        {Q_GROUPS_END, "end of groups", &Service::groupsEnd, false},
        {Q_USER, "user", &Service::user, true},
        {Q_GROUP, "group", &Service::group, true},
    }};
    for (const Row& row : ROWS) {
        if (row.operation == operation) {
            return &row;
        }
    }
    return nullptr;
}

Service::Service(CurrentBackend& backend, DirectoryHealth& health, Reporter& reporter,
                 std::string client)
    : m_backend(backend), m_health(health), m_reporter(reporter), m_client(std::move(client)),
      m_logger(tessa::Logger::get(LOGGER_NAME)) {}

std::string Service::answer(std::string_view frame) {
    unsigned operation = 0;
    if (!messages::operationOf(frame, operation)) {
        m_reporter.report(m_client + " sent a request of " + std::to_string(frame.size()) +
                          " bytes, which is none");
        return refuse(nullptr, Q_BAD_REQUEST, "malformed request");
    }
    const Row* row = rowOf(operation);
    if (row == nullptr) {
        m_reporter.report(m_client + " asked for unknown operation " + std::to_string(operation));
        return refuse(nullptr, Q_UNKNOWN_OPERATION,
                      "operation " + std::to_string(operation) + " is unknown to version " +
                          std::to_string(QUORAD_PROTOCOL_VERSION));
    }
    return dispatch(*row, frame);
}

std::string Service::dispatch(const Row& row, std::string_view frame) {
    messages::Arena arena;
    q_request request{};
    if (!messages::decode(frame, request, arena)) {
        m_reporter.report(m_client + " sent a malformed request: " + row.name);
        return refuse(&row, Q_BAD_REQUEST, std::string("malformed request: ") + row.name);
    }
    if (!m_greeted && row.operation != Q_HELLO) {
        return refuse(&row, Q_WRONG_VERSION, "the first request must tell the version");
    }
    if (std::optional<std::string> prepared = takePrepared(request)) {
        return std::move(*prepared);
    }
    m_likely.reset();
    return respond(row, request);
}

std::string Service::respond(const Row& row, const q_request& request) {
    try {
        return ask(row, request);
    } catch (const tessa::NotFoundException& error) {
        return refuse(&row, Q_NOT_FOUND, error.message());
    } catch (const tessa::BadDataException& error) {
        return refuse(&row, Q_BAD_REQUEST, error.message());
    } catch (const NoSuchCursor& error) {
        return refuse(&row, Q_NO_SUCH_CURSOR, error.what());
    } catch (const tessa::TESSAException& error) {
        return refuse(&row, Q_UNAVAILABLE, error.message());
    } catch (const std::exception& error) {
        // Not a way in which a directory fails: something is wrong on this machine.
        KARST_LOG(m_logger, tessa::LOG_FAILURE, "%s for %s failed: %s", row.name, m_client.c_str(),
                  error.what());
        return refuse(&row, Q_UNAVAILABLE, error.what());
    }
}

std::string Service::ask(const Row& row, const q_request& request) {
    if (!row.asksDirectory) {
        return (this->*row.handler)(request);
    }
    m_fromMemory = false;
    try {
        std::string frame = (this->*row.handler)(request);
        if (!m_fromMemory) {
            m_health.succeeded();
        }
        return frame;
    } catch (const tessa::NotFoundException&) {
        m_health.succeeded(); // it was asked, and said so
        throw;
    } catch (const tessa::BadDataException&) {
        throw;
    } catch (const tessa::TESSAException& error) {
        m_health.failed(error.message());
        throw;
    }
}

std::string Service::refuse(const Row* row, q_status status, const std::string& message) const {
    KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "%s: %s refused (%d): %s", m_client.c_str(),
              row == nullptr ? "request" : row->name, static_cast<int>(status), message.c_str());
    constexpr std::size_t ENOUGH = 4096; // a text that quotes a large request must fit a frame too
    q_answer answer{};
    answer.status = status;
    answer.q_answer_u.failure.message =
        messages::bytes(std::string_view(message).substr(0, ENOUGH));
    return messages::encode(answer);
}

std::string Service::hello(const q_request& request) {
    const unsigned version = request.q_request_u.protocol;
    if (version != QUORAD_PROTOCOL_VERSION) {
        const std::string text = "version " + std::to_string(version) + " is asked for, this is " +
                                 std::to_string(QUORAD_PROTOCOL_VERSION);
        m_reporter.report(m_client + ": " + text);
        return refuse(rowOf(Q_HELLO), Q_WRONG_VERSION, text);
    }
    m_greeted = true;
    q_answer answer = success(request.operation);
    resultOf(answer).protocol = QUORAD_PROTOCOL_VERSION;
    return messages::encode(answer);
}

std::string Service::setting(const q_request& request) {
    const std::string value =
        m_backend.get()->zones->setting(messages::text(request.q_request_u.setting));
    q_answer answer = success(request.operation);
    resultOf(answer).setting = messages::bytes(value);
    return encodeBounded(answer);
}

std::string Service::systemInfo(const q_request& request) {
    const int code = request.q_request_u.info_code;
    if (code != tessa::SYSTEM_INFO_ZONE_HIERARCHY) {
        TESSA_THROW(tessa::NotFoundException,
                    "no system information has the code " + std::to_string(code));
    }
    const std::string hierarchy = m_backend.get()->zones->hierarchy();
    q_answer answer = success(request.operation);
    resultOf(answer).info = messages::bytes(hierarchy);
    return encodeBounded(answer);
}

tessa::ADObject Service::fetchObject(Backend& backend, const q_fetch& wanted) {
    const std::string dn = messages::text(wanted.dn);
    auto attributes =
        messages::fromMessage(wanted.attributes.attributes_val, wanted.attributes.attributes_len);
    for (const std::string& name : attributes) {
        if (tessa::equalsIgnoreCase(name, tessa::TESSA_ZONE_SFU)) {
            attributes.emplace_back("extensionName"); // it is made from this one
            break;
        }
    }
    try {
        tessa::ADObject object = backend.directory->fetch(
            messages::text(wanted.domain), dn, attributes, wanted.all_attributes != FALSE);
        addZoneAttributes(object);
        return object;
    } catch (const tessa::IPCException& error) {
        tessa::ADObject remembered;
        if (!backend.zones->rememberedZoneObject(dn, remembered)) {
            throw;
        }
        m_fromMemory = true;
        m_health.failed(error.message());
        addZoneAttributes(remembered);
        return remembered;
    }
}

std::string Service::fetch(const q_request& request) {
    const q_fetch& wanted = request.q_request_u.fetch;
    KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "fetch '%s'", messages::text(wanted.dn).c_str());
    const auto backend = m_backend.get();
    messages::Arena arena;
    const tessa::ADObject object = fetchObject(*backend, wanted);
    q_answer answer = success(request.operation);
    resultOf(answer).object = messages::toMessage(object, arena);
    return encodeBounded(answer);
}

std::string Service::search(const q_request& request) {
    const q_search& wanted = request.q_request_u.search;
    SearchRequest search;
    search.domain = messages::text(wanted.domain);
    search.filter = messages::text(wanted.filter);
    search.base = messages::text(wanted.base);
    search.attributes =
        messages::fromMessage(wanted.attributes.attributes_val, wanted.attributes.attributes_len);
    search.scope = wanted.scope;
    search.sizeLimit = wanted.size_limit;
    search.allAttributes = wanted.all_attributes != FALSE;
    KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "search '%s' below '%s', scope %d",
              search.filter.c_str(), search.base.c_str(), search.scope);
    if (search.scope < tessa::SCOPE_BASE || search.scope > tessa::SCOPE_SUBTREE) {
        TESSA_THROW(tessa::BadDataException,
                    std::to_string(search.scope) + " is not the scope of a search");
    }
    if (m_searches.size() >= MAX_SEARCHES) {
        TESSA_THROW(tessa::BadDataException, "already " + std::to_string(MAX_SEARCHES) +
                                                 " searches are open on this connection");
    }
    const auto backend = m_backend.get();
    Pager<tessa::ADObject> pager(backend, backend->directory->search(search));
    do {
        ++m_lastCursor;
    } while (m_lastCursor == 0 || m_searches.count(m_lastCursor) != 0);
    m_searches.emplace(m_lastCursor, std::move(pager));
    return searchPage(request.operation, m_lastCursor);
}

std::string Service::searchNext(const q_request& request) {
    return searchPage(request.operation, request.q_request_u.next_cursor);
}

// The next page of an open search. One that fails is closed.
std::string Service::searchPage(unsigned operation, unsigned cursor) {
    const auto open = m_searches.find(cursor);
    if (open == m_searches.end()) {
        throw NoSuchCursor("no search " + std::to_string(cursor) + " is open");
    }
    try {
        messages::Arena arena;
        q_page page = fillPage(open->second, arena);
        page.cursor = open->second.more() ? cursor : 0;
        q_answer answer = success(operation);
        resultOf(answer).page = page; // the same place as next_page
        std::string frame = encodeBounded(answer);
        if (page.cursor == 0) {
            m_searches.erase(open);
        } else {
            m_likely = Next{Q_SEARCH_NEXT, cursor};
        }
        return frame;
    } catch (...) {
        m_searches.erase(open);
        throw;
    }
}

q_page Service::fillPage(Pager<tessa::ADObject>& pager, messages::Arena& arena) {
    pager.fill();
    q_page page{};
    page.objects.objects_val = arena.array<q_object>(PAGE_ITEMS);
    std::size_t bytes = 0;
    while (const tessa::ADObject* object = pager.front()) {
        const std::size_t size = messages::encodedSize(*object);
        const u_int count = page.objects.objects_len;
        if (count == PAGE_ITEMS || (count > 0 && bytes + size > PAGE_BYTES)) {
            break;
        }
        if (size > MAX_ITEM_BYTES) {
            TESSA_THROW(tessa::BadDataException,
                        "object '" + (*object)["_dn"].asString() + "' of " + std::to_string(size) +
                            " bytes is too large for a message; ask for fewer attributes");
        }
        bytes += size;
        page.objects.objects_val[page.objects.objects_len++] = messages::toMessage(*object, arena);
        pager.pop();
    }
    return page;
}

std::string Service::searchEnd(const q_request& request) {
    const unsigned cursor = request.q_request_u.end_cursor;
    const bool prepared = forgetPrepared({Q_SEARCH_NEXT, cursor});
    if (m_searches.erase(cursor) == 0 && !prepared) {
        throw NoSuchCursor("no search " + std::to_string(cursor) + " is open");
    }
    return messages::encode(success(request.operation));
}

} // namespace quorad
