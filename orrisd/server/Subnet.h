#pragma once

#include <string>

/// A set of IPv4 addresses with a common beginning: a network address and its mask, both in network
/// byte order, the address already masked. A plain value.
class Subnet {
public:
    /// @throws std::invalid_argument "malformed mask" when the mask is no run of ones from the top
    Subnet(unsigned int address, unsigned int netmask);
    /// From text such as "10.1.0.0/255.255.0.0". The mask is an address, not a prefix length.
    /// @throws std::invalid_argument saying what is wrong with the text
    explicit Subnet(const std::string& text);

    /// Any form that inet_aton takes. @throws std::invalid_argument with the input as its text
    static unsigned int MakeAddr(const char* text);
    static unsigned int MakeAddr(const std::string& text);
    /// The part before the first "/", and everything after it.
    static unsigned int GetAddr(const std::string& text);
    static unsigned int GetMask(const std::string& text);
    static bool ValidateMask(unsigned int mask);

    /// @param address in network byte order
    bool isMember(unsigned int address) const { return (address & mask) == addr; }
    /// "127.0.0.0/255.0.0.0"
    std::string toString() const;

private:
    unsigned int addr;
    unsigned int mask;
};
