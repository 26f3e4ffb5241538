#pragma once

#include <string>
#include <string_view>

namespace tessa {

/// Distinguished names as text (RFC 4514; blanks around components are allowed). Pure functions.
/// A text that is no distinguished name has no domain, parent or first value: they are empty.
class DN {
public:
    /// Whether the text is a distinguished name with at least one component ("CN=a,DC=b").
    static bool isDN(std::string_view text);
    /// DNS domain of a name: its DC components joined by points, lower-cased
    /// ("CN=x,DC=Example,DC=com" gives "example.com"); empty when it has none.
    static std::string domainFromDN(std::string_view dn);
    /// The name without its first component; empty for a name of one component.
    static std::string parent(std::string_view dn);
    /// Value of the first component with its escapes resolved.
    static std::string firstValue(std::string_view dn);
    /// Form to compare by: components trimmed, attribute types and values lower-cased, escapes in
    /// one spelling. Two names of one object are equal in this form. A text that is no name is only
    /// trimmed and lower-cased.
    static std::string normalize(std::string_view dn);
    /// Escapes a value for use in a name.
    static std::string escape(std::string_view value);
};

class LDAPBinding {
public:
    /// Name of a child container: "CN=" + escaped name + "," + parent.
    static std::string createChild(std::string_view parent, std::string_view name);
};

} // namespace tessa
