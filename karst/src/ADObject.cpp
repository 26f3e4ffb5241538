#include "karst/ADObject.h"

#include "karst/Text.h"

#include <algorithm>
#include <utility>

namespace tessa {

std::string ADAttribute::asString() const {
    if (m_values == nullptr || m_values->empty()) {
        return {};
    }
    return *std::min_element(m_values->begin(), m_values->end());
}

const std::vector<std::string>& ADAttribute::values() const {
    static const std::vector<std::string> NONE;
    return m_values == nullptr ? NONE : *m_values;
}

const ADObject::NamedAttribute* ADObject::find(std::string_view name) const {
    for (const NamedAttribute& attribute : m_attributes) {
        if (attribute.name.size() == name.size() && equalsIgnoreCase(attribute.name, name)) {
            return &attribute;
        }
    }
    return nullptr;
}

ADAttribute ADObject::operator[](std::string_view name) const {
    const NamedAttribute* attribute = find(name);
    return ADAttribute(attribute == nullptr ? nullptr : &attribute->values);
}

bool ADObject::attributeExists(std::string_view name, bool nonEmpty) const {
    const NamedAttribute* attribute = find(name);
    if (attribute == nullptr) {
        return false;
    }
    return !nonEmpty || !ADAttribute(&attribute->values).asString().empty();
}

void ADObject::set(std::string_view name, std::string value) {
    std::vector<std::string> values;
    values.push_back(std::move(value));
    set(name, std::move(values));
}

void ADObject::set(std::string_view name, std::vector<std::string> values) {
    const NamedAttribute* found = find(name);
    if (found == nullptr) {
        if (!values.empty()) {
            m_attributes.push_back({std::string(name), std::move(values)});
        }
        return;
    }
    const auto place = m_attributes.begin() + (found - m_attributes.data());
    if (values.empty()) {
        m_attributes.erase(place);
    } else {
        place->values = std::move(values);
    }
}

void ADObject::reserve(std::size_t attributes) {
    m_attributes.reserve(attributes);
}

} // namespace tessa
