#include "server/Subnet.h"

#include <karst/Interfaces.h>

#include <cstdint>
#include <stdexcept>

#include <arpa/inet.h>

namespace {

constexpr std::uint32_t ALL_ONES = 0xFFFFFFFF;
constexpr std::uint32_t TOP_BIT = 0x80000000;

std::size_t findSlash(const std::string& text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string::npos) {
        throw std::invalid_argument("Expected '/' in '" + text + "'");
    }
    return slash;
}

} // namespace

Subnet::Subnet(unsigned int address, unsigned int netmask)
    : addr(address & netmask), mask(netmask) {
    if (!ValidateMask(netmask)) {
        throw std::invalid_argument("malformed mask");
    }
}

Subnet::Subnet(const std::string& text) : addr(GetAddr(text)), mask(GetMask(text)) {
    if (!ValidateMask(mask)) {
        throw std::invalid_argument("malformed mask");
    }
    addr &= mask;
}

unsigned int Subnet::MakeAddr(const char* text) {
    in_addr address{};
    if (inet_aton(text, &address) == 0) {
        throw std::invalid_argument(text);
    }
    return address.s_addr;
}

unsigned int Subnet::MakeAddr(const std::string& text) {
    // inet_aton would silently ignore what follows a NUL byte.
    if (text.find('\0') != std::string::npos) {
        throw std::invalid_argument(text);
    }
    return MakeAddr(text.c_str());
}

unsigned int Subnet::GetAddr(const std::string& text) {
    return MakeAddr(text.substr(0, findSlash(text)));
}

unsigned int Subnet::GetMask(const std::string& text) {
    return MakeAddr(text.substr(findSlash(text) + 1));
}

bool Subnet::ValidateMask(unsigned int mask) {
    if (mask == 0 || mask == ALL_ONES) {
        return true;
    }
    std::uint32_t bits = ntohl(mask);
    if ((bits & 1) != 0) {
        return false;
    }
    while ((bits & 1) == 0) {
        bits = (bits >> 1) | TOP_BIT;
    }
    return bits == ALL_ONES;
}

std::string Subnet::toString() const {
    return tessa::toString(addr) + "/" + tessa::toString(mask);
}
