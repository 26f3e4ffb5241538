#pragma once

#include <cstddef>
#include <random>
#include <string>

namespace test {

/// One of many ways in which a file can be damaged. The same number damages in the same way.
inline std::string damaged(const std::string& original, unsigned number) {
    std::mt19937 random(number);
    const auto below = [&](std::size_t bound) {
        return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
    };
    std::string bytes = original;
    const auto scribble = [&](std::size_t at, std::size_t length) {
        for (std::size_t i = at; i < at + length && i < bytes.size(); ++i) {
            bytes[i] = static_cast<char>(below(256));
        }
    };
    switch (number % 8) {
    case 0: // one bit
        bytes[below(bytes.size())] ^= static_cast<char>(1U << below(8));
        break;
    case 1: // a few bytes
        scribble(below(bytes.size()), 1 + below(8));
        break;
    case 2: // cut off
        bytes.resize(below(bytes.size()));
        break;
    case 3: // something behind the end
        bytes.append(1 + below(5000), static_cast<char>(below(256)));
        break;
    case 4: // a block that was never written
        bytes.replace(bytes.size() / 4096 > 0 ? below(bytes.size() / 4096) * 4096 : 0,
                      std::min<std::size_t>(4096, bytes.size()), 4096, '\0');
        bytes.resize(original.size());
        break;
    case 5: // a piece in another's place
    {
        const std::size_t length = 1 + below(std::min<std::size_t>(4096, bytes.size()));
        const std::size_t from = below(bytes.size() - length + 1);
        const std::size_t to = below(bytes.size() - length + 1);
        bytes.replace(to, length, original.substr(from, length));
        break;
    }
    case 6: // the beginning, where the structure is told
        scribble(below(std::min<std::size_t>(128, bytes.size())), 1 + below(4));
        break;
    default: // nothing but noise
        scribble(0, bytes.size());
        break;
    }
    return bytes;
}

} // namespace test
