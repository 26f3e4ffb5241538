#include "karst/Interfaces.h"

#include "karst/Exceptions.h"
#include "karst/Text.h"

#include <array>
#include <cerrno>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

namespace tessa {

std::vector<unsigned int> GetIpAddresses() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        TESSA_THROW(SystemException, "cannot list network interfaces: " + errorText(errno));
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
    std::vector<unsigned int> addresses;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            addresses.push_back(
                reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr);
        }
    }
    return addresses;
}

std::string toString(const unsigned int& address) {
    const in_addr binary{address};
    std::array<char, INET_ADDRSTRLEN> text{};
    return ::inet_ntop(AF_INET, &binary, text.data(), text.size());
}

} // namespace tessa
