#pragma once

#include <string>
#include <vector>

namespace tessa {

/// IPv4 addresses of all interfaces that are configured, in network byte order.
/// @throws SystemException
std::vector<unsigned int> GetIpAddresses();

/// Dotted text of an IPv4 address in network byte order.
std::string toString(const unsigned int& address);

} // namespace tessa
