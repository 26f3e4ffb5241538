#include "ObjectMaker.h"

#include "Body.h"

#include <karst/DN.h>
#include <karst/Text.h>

#include <algorithm>

namespace quorad::ldif {

namespace {

constexpr std::string_view GUID = "objectguid";
constexpr std::string_view USN = "usnchanged";
constexpr char DELETED_MARK = '\x01';

/// A row as a filter sees it.
class RowSubject : public FilterSubject {
public:
    explicit RowSubject(const ObjectRow& row) : m_row(row) {}

    bool anyValue(std::string_view attribute, const Test& test) const override {
        if (attribute == GUID) {
            return test(m_row.guid);
        }
        if (attribute == USN) {
            return test(std::to_string(m_row.usn));
        }
        BodyReader body(m_row.body);
        std::string_view name;
        while (body.nextAttribute(name)) {
            if (!isName(name, attribute)) {
                continue;
            }
            while (body.values() > 0) {
                if (test(body.nextValue())) {
                    return true;
                }
            }
            return false;
        }
        return false;
    }

private:
    const ObjectRow& m_row;
};

} // namespace

ObjectMaker::ObjectMaker(const std::vector<std::string>& attributes, bool allAttributes,
                         const Filter* filter)
    : m_all(allAttributes || attributes.empty()), m_wantsUsn(false), m_filter(filter) {
    for (const auto& attribute : attributes) {
        m_all = m_all || attribute == "*";
        m_names.push_back(tessa::lower(attribute));
    }
    m_wantsUsn = m_all || wants(USN);
}

ObjectMaker ObjectMaker::withFilter(const Filter& filter) const {
    ObjectMaker other(*this);
    other.m_filter = &filter;
    return other;
}

bool ObjectMaker::wants(std::string_view name) const {
    return m_all || std::any_of(m_names.begin(), m_names.end(),
                                [&](const std::string& wanted) { return isName(name, wanted); });
}

void ObjectMaker::addIdentity(std::string_view dn, std::string_view guid, std::int64_t usn,
                              tessa::ADObject& object) const {
    object.reserve(m_all ? 16 : m_names.size() + 4);
    object.set("_dn", std::string(dn));
    object.set("_server", m_server);
    object.set("objectGUID", std::string(guid));
    if (m_wantsUsn) {
        object.set("uSNChanged", std::to_string(usn));
    }
}

void ObjectMaker::addAttributes(std::string_view packed, tessa::ADObject& object) const {
    BodyReader body(packed);
    std::string_view name;
    while (body.nextAttribute(name)) {
        if (!wants(name)) {
            continue;
        }
        std::vector<std::string> values;
        values.reserve(body.values());
        while (body.values() > 0) {
            values.emplace_back(body.nextValue());
        }
        object.set(name, std::move(values));
    }
}

bool ObjectMaker::make(const ObjectRow& row, tessa::ADObject& object) const {
    if (m_filter != nullptr && !m_filter->matches(RowSubject(row))) {
        return false;
    }
    addIdentity(BodyReader(row.body).dn(), row.guid, row.usn, object);
    addAttributes(row.body, object);
    return true;
}

tessa::ADObject ObjectMaker::makeDeleted(std::string_view guid, std::int64_t usn,
                                         std::string_view dn) const {
    tessa::ADObject object;
    addIdentity(dn, guid, usn, object);
    object.set("cn", DELETED_MARK + tessa::DN::firstValue(dn));
    object.set("isDeleted", std::string("TRUE"));
    return object;
}

} // namespace quorad::ldif
