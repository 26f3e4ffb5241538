#include "EntryNames.h"

#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>

namespace quorad::admin {

namespace {

constexpr std::size_t MAX_NAME = 64;
constexpr std::size_t READABLE = 40;

bool plain(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
}

// FNV-1a, whose result must never change: names made by an earlier run would be made anew.
std::uint64_t digest(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    }
    return hash;
}

} // namespace

bool EntryNames::isPlain(std::string_view key) {
    return !key.empty() && key.size() <= MAX_NAME && std::all_of(key.begin(), key.end(), plain);
}

std::string EntryNames::withDigest(std::string_view key) {
    std::string readable(key.substr(0, READABLE));
    std::replace_if(
        readable.begin(), readable.end(), [](char c) { return !plain(c); }, '_');
    std::array<char, 17> hex{};
    std::snprintf(hex.data(), hex.size(), "%016llx", static_cast<unsigned long long>(digest(key)));
    return readable + "-" + hex.data();
}

void EntryNames::reserve(std::string_view name) {
    m_taken.insert(tessa::lower(name));
}

void EntryNames::announce(const std::vector<std::string>& keys) {
    for (const std::string& key : keys) {
        ++m_folded[tessa::lower(key)];
    }
}

std::string EntryNames::choose(const std::string& key) {
    const auto folded = m_folded.find(tessa::lower(key));
    const bool alone = folded == m_folded.end() || folded->second < 2;
    if (alone && isPlain(key) && m_taken.insert(tessa::lower(key)).second) {
        return key;
    }
    const std::string base = withDigest(key);
    std::string name = base;
    for (unsigned count = 2; !m_taken.insert(tessa::lower(name)).second; ++count) {
        name = base + "-" + std::to_string(count);
    }
    return name;
}

} // namespace quorad::admin
