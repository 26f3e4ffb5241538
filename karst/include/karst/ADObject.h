#pragma once

#include "karst/Int64.h"

#include <string>
#include <string_view>
#include <vector>

namespace tessa {

/// One attribute of a directory object: its values as byte strings. An attribute that the object
/// does not have has no values and reads as the empty string.
class ADAttribute {
public:
    explicit ADAttribute(const std::vector<std::string>* values) : m_values(values) {}

    /// The value; of several the smallest in byte order, so that the choice never depends on the
    /// order in which a controller delivered them.
    std::string asString() const;
    operator std::string() const { return asString(); } // NOLINT: reads as text
    /// @throws BadDataException when the value is not a number.
    Int64 asInt64() const { return Int64::fromString(asString()); }
    std::size_t size() const { return m_values == nullptr ? 0 : m_values->size(); }
    const std::vector<std::string>& values() const;

private:
    const std::vector<std::string>* m_values;
};

/// A directory object: attributes by name, without regard to letter case. Pseudo-attributes begin
/// with "_": "_dn" (distinguished name) and "_server" (the directory server that answered). The
/// GUID is the attribute "objectGUID" (16 raw bytes). A value type; not for concurrent changes.
class ADObject {
public:
    /// The returned view is valid until the object changes.
    ADAttribute operator[](std::string_view name) const;
    /// Whether the object has the attribute; with `nonEmpty` also that its value is not empty.
    bool attributeExists(std::string_view name, bool nonEmpty) const;
    /// Sets an attribute, replacing what it held. Without values the object no longer has it.
    void set(std::string_view name, std::string value);
    void set(std::string_view name, std::vector<std::string> values);
    /// Makes room for that many attributes, for those who build many objects.
    void reserve(std::size_t attributes);
    /// The 16 raw GUID bytes, empty when the object carries none.
    std::string guid() const { return (*this)["objectGUID"].asString(); }

    struct NamedAttribute {
        std::string name;
        std::vector<std::string> values;
    };
    const std::vector<NamedAttribute>& attributes() const { return m_attributes; }

private:
    const NamedAttribute* find(std::string_view name) const;
    std::vector<NamedAttribute> m_attributes;
};

} // namespace tessa
