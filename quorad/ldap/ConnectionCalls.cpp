// Questions and changes over a connection, and what their failures mean.
#include "../Answers.h"
#include "Connection.h"

#include <karst/Text.h>

#include <algorithm>
#include <ctime>

namespace quorad::ldap {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* SHOW_DELETED = "1.2.840.113556.1.4.417";
constexpr const char* TREE_DELETE = "1.2.840.113556.1.4.805";

/// C forms of texts, for the time of a call.
class Names {
public:
    explicit Names(const std::vector<std::string>& names) : m_names(names) {
        for (std::string& name : m_names) {
            m_pointers.push_back(name.data());
        }
        m_pointers.push_back(nullptr);
    }
    char** get() { return m_pointers.data(); }

private:
    std::vector<std::string> m_names;
    std::vector<char*> m_pointers;
};

class Changes {
public:
    explicit Changes(std::vector<Modification> modifications)
        : m_source(std::move(modifications)), m_values(m_source.size()),
          m_pointers(m_source.size()), m_changes(m_source.size()) {
        for (std::size_t i = 0; i < m_source.size(); ++i) {
            fill(i);
            m_list.push_back(&m_changes[i]);
        }
        m_list.push_back(nullptr);
    }
    LDAPMod** get() { return m_list.data(); }

private:
    void fill(std::size_t i) {
        Modification& source = m_source[i];
        for (std::string& value : source.values) {
            berval bytes{};
            bytes.bv_len = value.size();
            bytes.bv_val = value.data();
            m_values[i].push_back(bytes);
        }
        for (berval& value : m_values[i]) {
            m_pointers[i].push_back(&value);
        }
        m_pointers[i].push_back(nullptr);
        LDAPMod& change = m_changes[i];
        const int kind = source.kind == Modification::Kind::ADD      ? LDAP_MOD_ADD
                         : source.kind == Modification::Kind::REMOVE ? LDAP_MOD_DELETE
                                                                     : LDAP_MOD_REPLACE;
        change.mod_op = kind | LDAP_MOD_BVALUES;
        change.mod_type = source.attribute.data();
        change.mod_bvalues = source.values.empty() ? nullptr : m_pointers[i].data();
    }

    std::vector<Modification> m_source;
    std::vector<std::vector<berval>> m_values;
    std::vector<std::vector<berval*>> m_pointers;
    std::vector<LDAPMod> m_changes;
    std::vector<LDAPMod*> m_list;
};

LDAPControl controlOf(const char* oid) {
    LDAPControl control{};
    control.ldctl_oid = const_cast<char*>(oid); // NOLINT: the library only reads it
    control.ldctl_iscritical = 1;
    return control;
}

std::string textOption(LDAP* ldap, int option) {
    char* text = nullptr;
    std::string copy;
    if (::ldap_get_option(ldap, option, &text) == LDAP_OPT_SUCCESS && text != nullptr) {
        copy = text;
        ::ldap_memfree(text);
    }
    return copy;
}

} // namespace

std::string Connection::diagnostic(int code) const {
    std::string text = ::ldap_err2string(code);
    const std::string more = textOption(m_ldap, LDAP_OPT_DIAGNOSTIC_MESSAGE);
    if (!more.empty() && more != text) {
        text += " (" + tessa::printable(tessa::trimWhiteSpace(more)) + ")";
    }
    return text;
}

void Connection::fail(int code, const std::string& what, const std::string& dn) {
    const std::string text = m_endpoint.uri() + ": " + what + ": " + diagnostic(code);
    switch (code) {
    case LDAP_NO_SUCH_OBJECT:
    case LDAP_REFERRAL: // what lies in another domain is not followed
        TESSA_THROW(tessa::NotFoundException, dn.empty() ? text : "no object '" + dn + "'");
    case LDAP_FILTER_ERROR:
    case LDAP_INVALID_DN_SYNTAX:
    case LDAP_INVALID_SYNTAX:
    case LDAP_PARAM_ERROR:
    case LDAP_ENCODING_ERROR:
        TESSA_THROW(tessa::BadDataException, text);
    case LDAP_SERVER_DOWN:
    case LDAP_TIMEOUT:
    case LDAP_CONNECT_ERROR:
    case LDAP_DECODING_ERROR:
    case LDAP_LOCAL_ERROR:
    case LDAP_UNAVAILABLE:
        m_usable = false;
        TESSA_THROW(ConnectionLost, text);
    case LDAP_OPERATIONS_ERROR: // what a connection answers whose tickets have run out
    case LDAP_STRONG_AUTH_REQUIRED:
    case LDAP_BUSY:
    case LDAP_UNWILLING_TO_PERFORM:
        m_usable = false;
        QUORAD_REFUSED(text, code);
    default:
        QUORAD_REFUSED(text, code);
    }
}

void Connection::failQuestion(int code, const std::string& what, const std::string& dn) {
    switch (code) {
    case LDAP_OPERATIONS_ERROR: // what a connection answers whose tickets have run out
    case LDAP_BUSY:
    case LDAP_UNAVAILABLE:
    case LDAP_UNWILLING_TO_PERFORM:
        m_usable = false;
        throw Unfit(m_endpoint.uri() + ": " + what + ": " + diagnostic(code), code,
                    tessa::baseName(__FILE__), __LINE__);
    default:
        fail(code, what, dn);
    }
}

void Connection::requireSent(int code, const std::string& what) {
    if (code != LDAP_SUCCESS) {
        fail(code, what);
    }
}

LDAPMessage* Connection::await(int message, int all, Deadline deadline, const std::string& what) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
        timeval limit{static_cast<std::time_t>(std::max<long>(left, 0) / 1000000),
                      std::max<long>(left, 0) % 1000000};
        LDAPMessage* answer = nullptr;
        const int kind = ::ldap_result(m_ldap, message, all, &limit, &answer);
        if (kind > 0) {
            return answer;
        }
        ::ldap_msgfree(answer);
        if (kind < 0) {
            int code = LDAP_SERVER_DOWN;
            ::ldap_get_option(m_ldap, LDAP_OPT_RESULT_CODE, &code);
            fail(code == LDAP_SUCCESS ? LDAP_SERVER_DOWN : code, what);
        }
        if (Clock::now() >= deadline) {
            m_usable = false;
            ::ldap_abandon_ext(m_ldap, message, nullptr, nullptr);
            TESSA_THROW(Silent, m_endpoint.uri() + ": " + what +
                                    ": the controller is connected but does not answer");
        }
    }
}

void Connection::finish(int message, const std::string& what) {
    LDAPMessage* const answer =
        await(message, LDAP_MSG_ALL, Clock::now() + m_settings.timeout, what);
    int code = LDAP_SUCCESS;
    const int parsed =
        ::ldap_parse_result(m_ldap, answer, &code, nullptr, nullptr, nullptr, nullptr, 1);
    if (parsed != LDAP_SUCCESS || code != LDAP_SUCCESS) {
        fail(parsed != LDAP_SUCCESS ? parsed : code, what);
    }
}

tessa::ADObject Connection::toObject(LDAPMessage* entry) {
    tessa::ADObject object;
    object.reserve(8);
    char* const dn = ::ldap_get_dn(m_ldap, entry);
    object.set("_dn", std::string(dn == nullptr ? "" : dn));
    ::ldap_memfree(dn);
    object.set("_server", m_root.server);
    BerElement* position = nullptr;
    for (char* name = ::ldap_first_attribute(m_ldap, entry, &position); name != nullptr;
         name = ::ldap_next_attribute(m_ldap, entry, position)) {
        berval** const values = ::ldap_get_values_len(m_ldap, entry, name);
        std::vector<std::string> copies;
        for (berval** value = values; value != nullptr && *value != nullptr; ++value) {
            copies.emplace_back((*value)->bv_val, (*value)->bv_len);
        }
        // Names are the controller's; those that begin with "_" are not its to give.
        if (*name != '_' && !copies.empty()) {
            object.set(name, std::move(copies));
        }
        ::ldap_value_free_len(values);
        ::ldap_memfree(name);
    }
    ::ber_free(position, 0);
    return object;
}

namespace {

// Whether just this part of an attribute was asked for.
bool isWanted(const std::string& part, const std::vector<std::string>& attributes) {
    return std::any_of(attributes.begin(), attributes.end(), [&](const std::string& asked) {
        Range wanted;
        return parseRange(asked, wanted) && !wanted.complete &&
               tessa::equalsIgnoreCase(wanted.attribute, part);
    });
}

std::size_t sizeOf(const std::vector<std::string>& values) {
    constexpr std::size_t FRAMING = 8; // length and filling, at most
    std::size_t bytes = 0;
    for (const std::string& value : values) {
        bytes += value.size() + FRAMING;
    }
    return bytes;
}

} // namespace

// The values behind those at hand.
std::vector<std::string> Connection::readRest(const std::string& dn, Range range,
                                              std::vector<std::string> values, std::size_t& bytes,
                                              bool showDeleted) {
    while (!range.complete) {
        const unsigned long asked = range.next;
        const std::string name = range.attribute;
        const tessa::ADObject more = readPart(dn, {rangeFrom(name, asked)}, showDeleted);
        range.complete = true; // unless there is a further part
        for (const auto& attribute : more.attributes()) {
            Range part;
            if (parseRange(attribute.name, part) && tessa::equalsIgnoreCase(part.attribute, name)) {
                values.insert(values.end(), attribute.values.begin(), attribute.values.end());
                bytes += sizeOf(attribute.values);
                range.complete = part.complete || part.next <= asked;
                range.next = part.next;
            }
        }
        if (bytes > MAX_ITEM_BYTES) {
            std::string text = "object '" + dn;
            text += "' is too large for a message: '" + name;
            text += "' alone has more than " + std::to_string(values.size());
            text += " values; ask for a part, such as '" + rangeOf(name, 0, 1000) + "'";
            TESSA_THROW(tessa::BadDataException, text);
        }
    }
    return values;
}

void Connection::complete(tessa::ADObject& object, const std::vector<std::string>& attributes,
                          bool showDeleted) {
    std::vector<std::pair<std::string, Range>> ranges;
    std::size_t bytes = 0;
    for (const auto& attribute : object.attributes()) {
        Range range;
        bytes += sizeOf(attribute.values);
        if (parseRange(attribute.name, range) && !isWanted(range.attribute, attributes)) {
            ranges.emplace_back(attribute.name, range);
        }
    }
    for (const auto& [description, range] : ranges) {
        std::vector<std::string> values = object[description].values();
        object.set(description, std::vector<std::string>());
        object.set(range.attribute, readRest(object["_dn"].asString(), range, std::move(values),
                                             bytes, showDeleted));
    }
}

tessa::ADObject Connection::read(const std::string& dn, const std::vector<std::string>& attributes,
                                 bool showDeleted) {
    tessa::ADObject object = readPart(dn, attributes, showDeleted);
    complete(object, attributes, showDeleted);
    return object;
}

tessa::ADObject Connection::readPart(const std::string& dn,
                                     const std::vector<std::string>& attributes, bool showDeleted) {
    const std::string what = dn.empty() ? "read of the root object" : "read of '" + dn + "'";
    LDAPControl deleted = controlOf(SHOW_DELETED);
    LDAPControl* controls[] = {showDeleted ? &deleted : nullptr, nullptr};
    Names names(attributes);
    int message = 0;
    timeval limit{static_cast<std::time_t>(m_settings.timeout.count()), 0};
    requireSent(::ldap_search_ext(m_ldap, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                                  attributes.empty() ? nullptr : names.get(), 0, controls, nullptr,
                                  &limit, 0, &message),
                what);
    LDAPMessage* const answer =
        await(message, LDAP_MSG_ALL, Clock::now() + m_settings.timeout, what);
    const std::unique_ptr<LDAPMessage, int (*)(LDAPMessage*)> owner(answer, ::ldap_msgfree);
    int code = LDAP_SUCCESS;
    const int parsed =
        ::ldap_parse_result(m_ldap, answer, &code, nullptr, nullptr, nullptr, nullptr, 0);
    if (parsed != LDAP_SUCCESS || code != LDAP_SUCCESS) {
        failQuestion(parsed != LDAP_SUCCESS ? parsed : code, what, dn);
    }
    LDAPMessage* const entry = ::ldap_first_entry(m_ldap, answer);
    if (entry == nullptr) {
        TESSA_THROW(tessa::NotFoundException, "no object '" + dn + "'");
    }
    return toObject(entry);
}

std::unique_ptr<PagedSearch> Connection::search(const std::string& base, const std::string& filter,
                                                const std::vector<std::string>& attributes,
                                                const SearchOptions& options) {
    return std::make_unique<PagedSearch>(*this, base, filter, attributes, options);
}

void Connection::add(const std::string& dn, const std::vector<Modification>& attributes) {
    const std::string what = "add of '" + dn + "'";
    Changes changes(attributes);
    int message = 0;
    requireSent(::ldap_add_ext(m_ldap, dn.c_str(), changes.get(), nullptr, nullptr, &message),
                what);
    finish(message, what);
}

void Connection::modify(const std::string& dn, const std::vector<Modification>& modifications) {
    const std::string what = "change of '" + dn + "'";
    Changes changes(modifications);
    int message = 0;
    requireSent(::ldap_modify_ext(m_ldap, dn.c_str(), changes.get(), nullptr, nullptr, &message),
                what);
    finish(message, what);
}

void Connection::remove(const std::string& dn, bool tree) {
    const std::string what = "removal of '" + dn + "'";
    LDAPControl below = controlOf(TREE_DELETE);
    LDAPControl* controls[] = {tree ? &below : nullptr, nullptr};
    int message = 0;
    requireSent(::ldap_delete_ext(m_ldap, dn.c_str(), controls, nullptr, &message), what);
    finish(message, what);
}

void Connection::rename(const std::string& dn, const std::string& newName,
                        const std::string& newParent) {
    const std::string what = "move of '" + dn + "'";
    int message = 0;
    requireSent(::ldap_rename(m_ldap, dn.c_str(), newName.c_str(),
                              newParent.empty() ? nullptr : newParent.c_str(), 1, nullptr, nullptr,
                              &message),
                what);
    finish(message, what);
}

} // namespace quorad::ldap
