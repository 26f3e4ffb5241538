#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace tessa {

/// Object GUID: 16 raw bytes in the directory's stored order (first three fields little-endian,
/// RFC 4122 text form otherwise). A value type.
class Guid {
public:
    Guid() = default;
    /// Text "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", with or without braces.
    /// @throws BadDataException
    static Guid fromString(std::string_view text);
    /// @throws BadDataException unless there are exactly 16 bytes.
    static Guid fromBytes(std::string_view bytes);
    /// A fresh random GUID (version 4).
    static Guid random();

    std::string toString() const;
    /// The 16 raw bytes.
    std::string bytes() const;
    /// Name that finds the object by its GUID wherever it is: "<GUID=text>".
    std::string toDN() const;

    friend auto operator<=>(const Guid&, const Guid&) = default;

private:
    std::array<std::uint8_t, 16> m_bytes{};
};

} // namespace tessa
