#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorad::ldif {

/// An attribute's name with one of its values, as views.
struct NameAndValue {
    std::string_view name;
    std::string_view value;
};

/// Packs an object for the index: its DN as written, and its attributes by name, each with its
/// values in byte order, so that equal objects are equal byte for byte. A checksum at the end tells
/// damage.
/// @param attributes one item for each value; comes back sorted, and without repetitions
/// @param body replaced; its memory is used again
void packBody(std::string_view dn, std::vector<NameAndValue>& attributes, std::string& body);

/// Takes a packed object apart without copying. The bytes must outlive it.
class BodyReader {
public:
    /// @throws sqlite::Damaged when the bytes are not what packBody made
    explicit BodyReader(std::string_view body);

    std::string_view dn() const { return m_dn; }
    /// Steps to the next attribute, past the values of the last that were not taken.
    /// @return false behind the last
    bool nextAttribute(std::string_view& name);
    /// Values of the attribute that are left to take.
    std::size_t values() const { return m_values; }
    std::string_view nextValue();

private:
    std::uint64_t number();
    std::string_view bytes();

    std::string_view m_rest;
    std::string_view m_dn;
    std::uint64_t m_attributes = 0;
    std::string_view m_behind; ///< m_rest behind the current attribute
    std::uint64_t m_values = 0;
};

/// Whether the name is the other, which has lower-case letters.
bool isName(std::string_view name, std::string_view lowerCased);

} // namespace quorad::ldif
