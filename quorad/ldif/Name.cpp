#include "Name.h"

#include "Quoted.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Text.h>

namespace quorad::ldif {

namespace {
constexpr std::size_t QUOTED = 200;
}

SplitName splitName(std::string_view dn) {
    std::size_t comma = 0;
    while (comma < dn.size() && dn[comma] != ',') {
        comma += dn[comma] == '\\' ? 2U : 1U;
    }
    SplitName name;
    name.component = dn.substr(0, comma);
    const bool hasParent = comma < dn.size();
    if (hasParent) {
        name.parent = tessa::trimWhiteSpace(dn.substr(comma + 1));
    }
    if ((hasParent && name.parent.empty()) || !tessa::DN::isDN(name.component)) {
        TESSA_THROW(tessa::BadDataException, quoted(dn, QUOTED) + " is not a distinguished name");
    }
    return name;
}

} // namespace quorad::ldif
