#include "Locator.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <random>

#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

namespace quorad::ldap {

namespace {

constexpr std::size_t MAX_CANDIDATES = 64;
constexpr unsigned LDAPS_PORT = 636;
constexpr int SECONDS_A_TRY = 2;
constexpr int TRIES = 2;
constexpr std::size_t MAX_ANSWER = 65536;

/// State of the resolver for one question; its default state would be the thread's.
class Resolver {
public:
    Resolver() {
        if (res_ninit(&m_state) != 0) {
            TESSA_THROW(tessa::IPCException, "DNS cannot be asked: /etc/resolv.conf is unusable");
        }
        m_state.retrans = SECONDS_A_TRY;
        m_state.retry = TRIES;
    }
    ~Resolver() { res_nclose(&m_state); }
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    std::string ask(const std::string& name) {
        std::string answer(MAX_ANSWER, '\0');
        const int size = res_nquery(&m_state, name.c_str(), ns_c_in, ns_t_srv,
                                    reinterpret_cast<unsigned char*>(answer.data()),
                                    static_cast<int>(answer.size()));
        if (size < 0) {
            TESSA_THROW(tessa::IPCException, "DNS names no domain controllers (" + name +
                                                 "): " + hstrerror(m_state.res_h_errno));
        }
        answer.resize(std::min(static_cast<std::size_t>(size), answer.size()));
        return answer;
    }

private:
    struct __res_state m_state {}; // NOLINT: the resolver's own name
};

// One record; false when it is not a usable service record.
bool readRecord(const ns_msg& message, const ns_rr& record, bool tls, Candidate& candidate) {
    constexpr std::size_t FIXED = 6; // priority, weight, port
    if (ns_rr_type(record) != ns_t_srv || ns_rr_rdlen(record) <= FIXED) {
        return false;
    }
    const unsigned char* data = ns_rr_rdata(record);
    std::array<char, NS_MAXDNAME> name{};
    if (dn_expand(ns_msg_base(message), ns_msg_end(message), data + FIXED, name.data(),
                  static_cast<int>(name.size())) < 0) {
        return false;
    }
    candidate.priority = ns_get16(data);
    candidate.weight = ns_get16(data + 2);
    candidate.endpoint.port = tls ? LDAPS_PORT : ns_get16(data + 4);
    candidate.endpoint.tls = tls;
    candidate.endpoint.host = tessa::lower(name.data());
    return candidate.endpoint.port != 0 && !candidate.endpoint.host.empty() &&
           candidate.endpoint.host != ".";
}

} // namespace

std::string Locator::serviceName(const std::string& domain) {
    return "_ldap._tcp.dc._msdcs." + domain;
}

std::vector<Candidate> Locator::fromAnswer(std::string_view answer, bool tls) {
    std::vector<Candidate> candidates;
    ns_msg message;
    if (ns_initparse(reinterpret_cast<const unsigned char*>(answer.data()),
                     static_cast<int>(answer.size()), &message) != 0) {
        return candidates;
    }
    const int count = ns_msg_count(message, ns_s_an);
    for (int i = 0; i < count && candidates.size() < MAX_CANDIDATES; ++i) {
        ns_rr record;
        Candidate candidate;
        if (ns_parserr(&message, ns_s_an, i, &record) == 0 &&
            readRecord(message, record, tls, candidate)) {
            candidates.push_back(candidate);
        }
    }
    return candidates;
}

void Locator::order(std::vector<Candidate>& candidates) {
    static thread_local std::minstd_rand random{std::random_device{}()};
    std::stable_sort(candidates.begin(), candidates.end(), [](const auto& a, const auto& b) {
        return a.priority != b.priority ? a.priority < b.priority : a.weight < b.weight;
    });
    for (auto first = candidates.begin(); first != candidates.end(); ++first) {
        const auto last = std::find_if(first, candidates.end(), [&](const auto& other) {
            return other.priority != first->priority;
        });
        const unsigned sum =
            std::accumulate(first, last, 0U, [](unsigned total, const auto& candidate) {
                return total + candidate.weight;
            });
        unsigned drawn = std::uniform_int_distribution<unsigned>(0, sum)(random);
        auto chosen = first;
        while (std::next(chosen) != last && drawn > chosen->weight) {
            drawn -= chosen->weight;
            ++chosen;
        }
        std::rotate(first, chosen, std::next(chosen));
    }
}

std::vector<Candidate> Locator::candidates(const Settings& settings) {
    std::vector<Candidate> candidates;
    if (!settings.servers.empty()) {
        for (const Endpoint& endpoint : settings.servers) {
            candidates.push_back({endpoint, static_cast<unsigned>(candidates.size()), 0});
        }
        return candidates;
    }
    const std::string name = serviceName(settings.domain);
    candidates = fromAnswer(Resolver().ask(name), settings.discoverTls);
    if (candidates.empty()) {
        TESSA_THROW(tessa::IPCException, "DNS names no domain controllers (" + name +
                                             "): the answer has no service records");
    }
    order(candidates);
    return candidates;
}

} // namespace quorad::ldap
