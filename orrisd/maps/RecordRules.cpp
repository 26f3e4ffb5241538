#include "maps/RecordRules.h"

#include "common/NisException.h"

#include <karst/Text.h>

#include <cstdint>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace nis::rules {

namespace {

using Fields = std::vector<std::string_view>;

[[noreturn]] void refuse(const std::string& text) {
    NIS_THROW(BadRecord, "bad record:" + text);
}

/// The fields from `first` on, with `suffix` behind each, up to a comment.
void appendAliases(Keys& keys, const Fields& fields, std::size_t first,
                   const std::string& suffix = "") {
    for (std::size_t i = first; i < fields.size() && fields[i].front() != '#'; ++i) {
        keys.emplace_back(fields[i]);
        keys.back() += suffix;
    }
}

} // namespace

Keys fields(const std::string& key, const std::string& value, unsigned n) {
    if (n >= 2) {
        return {key};
    }
    const Fields found = tessa::split(value, BLANKS);
    Keys keys;
    if (n == 0) {
        if (found.size() >= 2) {
            keys.emplace_back(found[1]);
        }
    } else if (!found.empty()) {
        keys.emplace_back(found[0]);
        appendAliases(keys, found, 2);
    }
    return keys;
}

bool validAddress(const std::string& text) {
    if (text.find('\0') != std::string::npos) {
        return false;
    }
    in6_addr address{};
    if (inet_pton(AF_INET6, text.c_str(), &address) != 1 &&
        inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return false;
    }
    std::uint32_t first = 0;
    std::memcpy(&first, &address, sizeof first);
    return first != UINT32_MAX;
}

Keys hosts(const std::string& value, unsigned n) {
    const Fields found = tessa::split(value, BLANKS);
    if (found.size() < 2 || !validAddress(std::string(found[0]))) {
        refuse(value);
    }
    Keys keys;
    if (n == 1) {
        keys.emplace_back(found[0]);
    } else if (n == 0) {
        keys.emplace_back(found[1]);
        appendAliases(keys, found, 2);
    }
    return keys;
}

Keys services(const std::string& key, const std::string& value, unsigned n) {
    const Fields found = tessa::split(value, "\t\r\n /");
    if (found.size() < 3) {
        return {key};
    }
    std::string protocol(1, '/');
    protocol += found[2];
    Keys keys;
    if (n == 0) {
        keys.push_back(std::string(found[1]) + protocol);
    } else if (n == 1) {
        keys.push_back(std::string(found[0]) + protocol);
        appendAliases(keys, found, 3, protocol);
    }
    return keys;
}

Keys ethers(const std::string& key, const std::string& value, unsigned n) {
    const Fields found = tessa::split(value, BLANKS);
    if (found.size() < 2) {
        return {key};
    }
    switch (n) {
    case 0:
        return {std::string(found[1])};
    case 1:
        return {std::string(found[0])};
    default:
        return {};
    }
}

Keys netmasks(const std::string& key, const std::string& value) {
    if (!validAddress(key)) {
        refuse(key);
    }
    if (!validAddress(value)) {
        refuse(value);
    }
    return {key};
}

Keys timezone(const std::string& value) {
    const Fields found = tessa::split(value, BLANKS);
    if (found.size() < 2) {
        refuse(value);
    }
    return {found.begin() + 1, found.end()};
}

bool checkAliaseAndAddr(std::string_view name, std::string_view address) {
    constexpr auto NONE = std::string_view::npos;
    const bool single =
        address.find(',') == NONE && address.find('|') == NONE && address.find(":include:") == NONE;
    const bool mail = address.find_first_of("@!") != NONE;
    return !name.empty() && single && mail && !name.starts_with('@') && !name.starts_with("YP_");
}

Keys aliases(const std::string& key, std::string& value, unsigned n) {
    const Fields found = tessa::split(value, ":");
    if (n == 0) {
        return found.empty() ? Keys{} : Keys{std::string(found[0])};
    }
    if (n > 2 || found.size() < 2) {
        return {};
    }
    const std::string addresses(tessa::trimWhiteSpace(found[1]));
    if (n == 1) {
        value = addresses;
        return {key};
    }
    if (!checkAliaseAndAddr(key, addresses)) {
        value = addresses;
        return {};
    }
    value = key;
    return {addresses};
}

} // namespace nis::rules
