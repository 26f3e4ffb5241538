#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace nis {

/// How the keys of a derived map are cut out of a record, for each kind of map. Pure functions.
/// `n` is the index of the derived map; an index that a kind does not have gives no key. A record
/// that cannot be used is BadRecord: "bad record:" followed by the offending text.
namespace rules {

using Keys = std::vector<std::string>;

/// Characters between the fields of a record.
inline constexpr const char* BLANKS = "\t\r\n ";

/// Index 0: the second field; index 1: the first and its aliases from the third on, up to a field
/// that begins with "#"; above: the record's key.
Keys fields(const std::string& key, const std::string& value, unsigned n);
Keys hosts(const std::string& value, unsigned n);
Keys services(const std::string& key, const std::string& value, unsigned n);
Keys ethers(const std::string& key, const std::string& value, unsigned n);
Keys netmasks(const std::string& key, const std::string& value);
Keys timezone(const std::string& value);
/// Rewrites the value to what the derived map serves.
Keys aliases(const std::string& key, std::string& value, unsigned n);

/// Whether the text is an IPv6 or IPv4 address whose first 32 bits are not all ones.
bool validAddress(const std::string& text);
/// Whether an alias line gives a reverse entry: the address is a single mail address and the name
/// an ordinary one.
bool checkAliaseAndAddr(std::string_view name, std::string_view address);

} // namespace rules
} // namespace nis
