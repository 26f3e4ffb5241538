#include "SearchCursors.h"

#include "../Pager.h"
#include "../Reporter.h"
#include "Text.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Logger.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <limits>

namespace quorad::ldap {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds SLICE(10); // a call that found nothing yet ends after that
// Maps up to this size are compared at every refresh: it takes less than a second.
constexpr std::int64_t SMALL_MAP = 20000;
constexpr std::int64_t DAY = 86400;
constexpr std::size_t GONE_PAGE = 1000;
constexpr std::size_t MANY = 200; // entries that are not put in their places one by one
constexpr unsigned FEW = 50;      // objects of a page that may each have a part of very many values

// Moves up to `limit` objects from one to the other.
void deliver(std::deque<tessa::ADObject>& ready, std::vector<tessa::ADObject>& items,
             std::size_t limit) {
    const auto count = static_cast<std::ptrdiff_t>(std::min(limit, ready.size()));
    std::move(ready.begin(), ready.begin() + count, std::back_inserter(items));
    ready.erase(ready.begin(), ready.begin() + count);
}

bool mayBeLarge(const std::vector<std::string>& attributes) {
    return std::any_of(attributes.begin(), attributes.end(), [](const std::string& name) {
        Range range;
        return name == "*" || parseRange(name, range);
    });
}

std::string usnFilter(const std::string& rest, std::int64_t from, std::int64_t to) {
    return "(&" + rest + "(uSNChanged>=" + std::to_string(from) +
           ")(uSNChanged<=" + std::to_string(to) + "))";
}

SearchOptions optionsOf(int scope, bool showDeleted, unsigned sizeLimit = 0) {
    SearchOptions options;
    options.scope = scope;
    options.showDeleted = showDeleted;
    options.sizeLimit = sizeLimit;
    return options;
}

boost::shared_ptr<tessa::Logger> logger() {
    static const auto instance = tessa::Logger::get(LOGGER_NAME);
    return instance;
}

} // namespace

PlainCursor::PlainCursor(Controllers& controllers, const SearchRequest& request,
                         Controllers::Deadline deadline)
    : m_query(controllers, deadline),
      m_attributes(askedAttributes(request.attributes, request.allAttributes)) {
    SearchOptions options = optionsOf(request.scope, false, request.sizeLimit);
    if (mayBeLarge(m_attributes)) {
        options.pageSize = FEW;
    }
    m_query.start(request.base, shiftUsn(request.filter, -m_query.epoch().shift), m_attributes,
                  options);
    readPage();
}

void PlainCursor::readPage() {
    std::vector<tessa::ADObject> page;
    m_more = m_query.nextPage(page);
    for (tessa::ADObject& object : page) {
        shiftNumbers(object, m_query.epoch());
        m_ready.push_back(std::move(object));
    }
}

void PlainCursor::complete(tessa::ADObject& object) {
    m_query.ask([&](Connection& connection) {
        connection.complete(object, m_attributes);
        return true;
    });
}

bool PlainCursor::nextPage(std::vector<tessa::ADObject>& items, std::size_t limit) {
    if (m_ready.empty() && m_more) {
        readPage();
    }
    std::size_t bytes = 0;
    while (!m_ready.empty() && limit > 0 && bytes < PAGE_BYTES) {
        tessa::ADObject object = std::move(m_ready.front());
        m_ready.pop_front();
        complete(object);
        bytes += tessa::messages::encodedSize(object);
        items.push_back(std::move(object));
        --limit;
    }
    return !m_ready.empty() || m_more;
}

EntryCursor::EntryCursor(Controllers& controllers, Store& store, Tombstones& tombstones,
                         const SearchRequest& request, const EntryRange& range,
                         Controllers::Deadline deadline)
    : m_controllers(controllers), m_store(store), m_tombstones(tombstones), m_request(request),
      m_range(range), m_query(controllers, deadline),
      m_left(request.sizeLimit == 0 ? std::numeric_limits<std::size_t>::max() : request.sizeLimit) {
    prepare();
}

std::int64_t EntryCursor::own(std::int64_t presented) const {
    return std::max<std::int64_t>(presented - m_query.epoch().shift, 0);
}

void EntryCursor::prepare() {
    const std::int64_t shift = m_query.epoch().shift;
    if (m_range.hasUpper && shift > 0 && m_range.upper <= shift) {
        // The client asks with a number of the time before the restore: none of it is left.
        TESSA_THROW(tessa::IPCException, "domain controller " + m_query.server() +
                                             " was restored meanwhile; begin again");
    }
    m_baseDn = m_query.ask([&](Connection& connection) {
        return connection.read(m_request.base, {"1.1"})["_dn"].asString();
    });
    m_root = m_query.ask([&](Connection&) { return m_controllers.readRoot(m_query.lease()); });
    m_base = m_store.base(m_query.server(), m_baseDn);
    if (m_range.hasLower) {
        m_readable = m_query.ask([&](Connection&) { return m_tombstones.readable(m_query); });
        begin(Phase::MOVES);
    } else {
        begin(Phase::ENTRIES);
    }
}

bool EntryCursor::nextPage(std::vector<tessa::ADObject>& items, std::size_t limit) {
    const auto end = Clock::now() + SLICE;
    while (m_ready.empty() && m_phase != Phase::DONE && Clock::now() < end) {
        step();
    }
    const std::size_t before = items.size();
    deliver(m_ready, items, std::min(limit, m_left));
    m_left -= items.size() - before;
    return m_left > 0 && (!m_ready.empty() || m_phase != Phase::DONE);
}

void EntryCursor::step() {
    switch (m_phase) {
    case Phase::MOVES:
        return moves();
    case Phase::COMPARE:
        return compare();
    case Phase::GONE:
        return gone();
    case Phase::DELETED:
        return deleted();
    case Phase::ENTRIES:
        return entries();
    case Phase::DONE:
        return;
    }
}

// Starts the search of a phase, or goes on to the next one where there is nothing to ask.
void EntryCursor::begin(Phase phase) {
    m_phase = phase;
    const std::string& server = m_query.server();
    const std::int64_t last = m_root.usn;
    if (m_phase == Phase::MOVES) {
        const std::int64_t first = m_store.movesSeen(server, m_query.epoch(), last) + 1;
        if (first > last) {
            return begin(Phase::COMPARE);
        }
        m_query.start(m_root.namingContext, usnFilter("(objectClass=container)", first, last),
                      {"objectGUID"}, optionsOf(LDAP_SCOPE_SUBTREE, true));
    } else if (m_phase == Phase::COMPARE) {
        if (!compareIsDue()) {
            return begin(Phase::GONE);
        }
        m_mark = m_store.mark();
        m_present.emplace(m_store.folder());
        m_query.start(m_baseDn, "(objectClass=*)", {"objectGUID"},
                      optionsOf(LDAP_SCOPE_ONELEVEL, false));
    } else if (m_phase == Phase::DELETED) {
        if (!m_readable) {
            return begin(Phase::ENTRIES);
        }
        const std::string where =
            "(isDeleted=TRUE)(lastKnownParent=" + escapeFilter(m_baseDn) + ")";
        const std::int64_t upper =
            m_range.hasUpper ? own(m_range.upper) : std::numeric_limits<std::int64_t>::max();
        m_query.start(Tombstones::container(m_root.namingContext),
                      usnFilter(where, own(m_range.lower), upper),
                      {"cn", "objectGUID", "isDeleted", "uSNChanged"},
                      optionsOf(LDAP_SCOPE_ONELEVEL, true));
    } else if (m_phase == Phase::ENTRIES) {
        m_query.start(m_baseDn, shiftUsn(m_request.filter, -m_query.epoch().shift),
                      askedAttributes(m_request.attributes, m_request.allAttributes),
                      optionsOf(LDAP_SCOPE_ONELEVEL, false));
    }
}

void EntryCursor::moves() {
    std::vector<tessa::ADObject> page;
    const bool more = m_query.nextPage(page);
    std::vector<Store::Place> places;
    places.reserve(page.size());
    for (const tessa::ADObject& object : page) {
        places.push_back({object.guid(), tessa::DN::parent(object["_dn"].asString())});
    }
    m_store.setPlaces(m_query.server(), places, m_root.usn + m_query.epoch().shift);
    if (!more) {
        m_store.setMovesSeen(m_query.server(), m_query.epoch(), m_root.usn);
        begin(Phase::COMPARE);
    }
}

bool EntryCursor::compareIsDue() {
    if (m_base.epoch != m_query.epoch().number) {
        return true; // restored, or nothing is known of it
    }
    if (m_root.usn + m_query.epoch().shift <= m_base.comparedUsn) {
        return false;
    }
    const std::int64_t interval = m_controllers.settings().compareInterval.count();
    const std::int64_t elapsed = std::time(nullptr) - m_base.compared;
    if (elapsed < 0 || interval == 0) {
        return true;
    }
    if (m_readable) {
        return elapsed >= std::max(interval, DAY);
    }
    return elapsed >= interval || m_base.count <= SMALL_MAP;
}

void EntryCursor::compare() {
    std::vector<tessa::ADObject> page;
    const bool more = m_query.nextPage(page);
    for (const tessa::ADObject& object : page) {
        m_present->add(toBytes(object.guid()));
    }
    if (!more) {
        finishCompare();
        begin(Phase::GONE);
    }
}

void EntryCursor::finishCompare() {
    m_present->sort();
    const std::size_t count = m_store.compare(
        m_base, m_query.epoch().number, m_root.usn + m_query.epoch().shift, m_mark, *m_present);
    KARST_LOG(logger(), tessa::LOG_DEBUGGING, "Compared '%s': %zu objects, %zu gone",
              m_baseDn.c_str(), m_present->size(), count);
    m_present.reset();
}

void EntryCursor::gone() {
    const auto objects = m_store.gone(m_base, m_range.lower, m_lastGone, GONE_PAGE);
    for (const GoneObject& object : objects) {
        m_ready.push_back(Tombstones::goneObject(m_query.server(), object.guid, object.usn));
        m_lastGone = object.guid;
    }
    if (objects.size() < GONE_PAGE) {
        begin(Phase::DELETED);
    }
}

void EntryCursor::deleted() {
    std::vector<tessa::ADObject> page;
    const bool more = m_query.nextPage(page);
    std::vector<std::string> guids;
    guids.reserve(page.size());
    for (const tessa::ADObject& object : page) {
        guids.push_back(object.guid());
    }
    // What was found to be gone has been reported already.
    const std::vector<bool> reported = m_store.areGone(m_base, m_range.lower, guids);
    for (std::size_t i = 0; i < page.size(); ++i) {
        if (!reported[i]) {
            shiftNumbers(page[i], m_query.epoch());
            m_ready.push_back(Tombstones::deletedObject(page[i]));
        }
    }
    KARST_LOG(logger(), tessa::LOG_DEBUGGING, "Deleted in '%s': %zu, known as gone: %td",
              m_baseDn.c_str(), page.size(), std::count(reported.begin(), reported.end(), true));
    if (!more) {
        begin(Phase::ENTRIES);
    }
}

void EntryCursor::entries() {
    std::vector<tessa::ADObject> page;
    const bool more = m_query.nextPage(page);
    std::vector<std::string> guids;
    for (tessa::ADObject& object : page) {
        guids.push_back(object.guid());
        shiftNumbers(object, m_query.epoch());
        m_ready.push_back(std::move(object));
    }
    // Before the client is told of them: it may keep what it has when the search fails later.
    if (guids.size() < MANY) {
        m_store.add(m_base, guids);
    } else {
        m_store.addMany(m_base, guids);
    }
    if (more) {
        return;
    }
    m_phase = Phase::DONE;
    if (!m_range.hasLower) {
        m_store.setRead(m_base, m_query.epoch().number, m_root.usn + m_query.epoch().shift);
    }
    // Another search may have looked through moves of these that came before they were known.
    m_store.lowerMovesSeen(m_query.server(), m_query.epoch(), m_root.usn);
}

} // namespace quorad::ldap
