#include "Body.h"

#include "Sqlite.h"

#include <algorithm>
#include <cstring>

namespace quorad::ldif {

namespace {

constexpr std::size_t CHECKSUM_SIZE = 8;

char lowered(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

int compareNames(std::string_view a, std::string_view b) {
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        const auto left = static_cast<unsigned char>(lowered(a[i]));
        const auto right = static_cast<unsigned char>(lowered(b[i]));
        if (left != right) {
            return left < right ? -1 : 1;
        }
    }
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

std::uint64_t checksum(std::string_view bytes) {
    constexpr std::uint64_t FACTOR = 0x9e3779b97f4a7c15U;
    std::uint64_t sum = bytes.size() * FACTOR;
    while (!bytes.empty()) {
        std::uint64_t word = 0;
        const std::size_t count = std::min(bytes.size(), sizeof(word));
        std::memcpy(&word, bytes.data(), count);
        sum = (sum ^ word) * FACTOR;
        sum ^= sum >> 29U;
        bytes.remove_prefix(count);
    }
    return sum;
}

void appendNumber(std::string& body, std::uint64_t number) {
    while (number >= 0x80U) {
        body += static_cast<char>(static_cast<unsigned char>((number & 0x7fU) | 0x80U));
        number >>= 7U;
    }
    body += static_cast<char>(static_cast<unsigned char>(number));
}

void appendBytes(std::string& body, std::string_view bytes) {
    appendNumber(body, bytes.size());
    body += bytes;
}

std::size_t numberSize(std::uint64_t number) {
    std::size_t size = 1;
    while (number >= 0x80U) {
        number >>= 7U;
        ++size;
    }
    return size;
}

void sortAttributes(std::vector<NameAndValue>& attributes) {
    const auto before = [](const NameAndValue& a, const NameAndValue& b) {
        const int order = compareNames(a.name, b.name);
        return order != 0 ? order < 0 : a.value < b.value;
    };
    const auto same = [](const NameAndValue& a, const NameAndValue& b) {
        return a.value == b.value && compareNames(a.name, b.name) == 0;
    };
    if (!std::is_sorted(attributes.begin(), attributes.end(), before)) {
        std::sort(attributes.begin(), attributes.end(), before);
    }
    attributes.erase(std::unique(attributes.begin(), attributes.end(), same), attributes.end());
}

} // namespace

void packBody(std::string_view dn, std::vector<NameAndValue>& attributes, std::string& body) {
    sortAttributes(attributes);
    body.clear();
    appendBytes(body, dn);
    std::size_t names = 0;
    for (std::size_t i = 0; i < attributes.size(); ++i) {
        names += i == 0 || compareNames(attributes[i].name, attributes[i - 1].name) != 0 ? 1 : 0;
    }
    appendNumber(body, names);
    for (std::size_t first = 0; first < attributes.size();) {
        std::size_t behind = first;
        std::size_t size = 0;
        while (behind < attributes.size() &&
               compareNames(attributes[behind].name, attributes[first].name) == 0) {
            const std::size_t length = attributes[behind].value.size();
            size += numberSize(length) + length;
            ++behind;
        }
        appendBytes(body, attributes[first].name);
        appendNumber(body, size);
        appendNumber(body, behind - first);
        for (; first < behind; ++first) {
            appendBytes(body, attributes[first].value);
        }
    }
    const std::uint64_t sum = checksum(body);
    char tail[CHECKSUM_SIZE];
    std::memcpy(tail, &sum, CHECKSUM_SIZE);
    body.append(tail, CHECKSUM_SIZE);
}

BodyReader::BodyReader(std::string_view body) {
    if (body.size() < CHECKSUM_SIZE) {
        TESSA_THROW(sqlite::Damaged, "an object of the index is cut off");
    }
    m_rest = body.substr(0, body.size() - CHECKSUM_SIZE);
    std::uint64_t sum = 0;
    std::memcpy(&sum, body.data() + m_rest.size(), CHECKSUM_SIZE);
    if (sum != checksum(m_rest)) {
        TESSA_THROW(sqlite::Damaged, "an object of the index does not match its checksum");
    }
    m_dn = bytes();
    m_attributes = number();
    m_behind = m_rest;
}

std::uint64_t BodyReader::number() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64 && !m_rest.empty(); shift += 7) {
        const auto byte = static_cast<unsigned char>(m_rest.front());
        m_rest.remove_prefix(1);
        value |= static_cast<std::uint64_t>(byte & 0x7fU) << shift;
        if (byte < 0x80U) {
            return value;
        }
    }
    TESSA_THROW(sqlite::Damaged, "an object of the index is malformed");
}

std::string_view BodyReader::bytes() {
    const std::uint64_t length = number();
    if (length > m_rest.size()) {
        TESSA_THROW(sqlite::Damaged, "an object of the index is malformed");
    }
    const std::string_view value = m_rest.substr(0, length);
    m_rest.remove_prefix(length);
    return value;
}

bool BodyReader::nextAttribute(std::string_view& name) {
    m_rest = m_behind;
    m_values = 0;
    if (m_attributes == 0) {
        return false;
    }
    --m_attributes;
    name = bytes();
    const std::uint64_t size = number();
    m_values = number();
    if (size > m_rest.size()) {
        TESSA_THROW(sqlite::Damaged, "an object of the index is malformed");
    }
    m_behind = m_rest.substr(size);
    return true;
}

std::string_view BodyReader::nextValue() {
    --m_values;
    return bytes();
}

bool isName(std::string_view name, std::string_view lowerCased) {
    return name.size() == lowerCased.size() &&
           std::equal(name.begin(), name.end(), lowerCased.begin(),
                      [](char a, char b) { return lowered(a) == b; });
}

} // namespace quorad::ldif
