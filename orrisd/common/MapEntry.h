#pragma once

#include <string>

namespace nis {

/// A key and its value, both byte strings. An empty key means that there is no entry: the key is
/// absent, or the map has ended.
struct MapEntry {
    std::string key;
    std::string value;

    static const MapEntry NOT_FOUND;

    friend bool operator==(const MapEntry&, const MapEntry&) = default;
};

} // namespace nis
