#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The little of ONC RPC (RFC 5531) and of the YP protocol that a load generator needs, written for
/// speed: a call is encoded once and sent again with another transaction id and key.
namespace load {

enum Procedure : std::uint32_t { MATCH = 3, FIRST = 4, NEXT = 5, ALL = 8 };

constexpr std::int32_t YP_TRUE = 1;
constexpr std::int32_t YP_NOMORE = 2;

/// Bytes of a call of YPPROG version 2: header, credentials (none), domain, map and, unless the
/// procedure takes none, the key.
std::string encodeCall(std::uint32_t xid, Procedure procedure, std::string_view domain,
                       std::string_view map, std::optional<std::string_view> key);

std::uint32_t transactionId(std::string_view message);

/// What a match, first or next answered.
struct Answer {
    bool accepted = false; ///< an RPC success reply that decoded completely
    std::int32_t status = 0;
    std::string_view key; ///< only of first and next
    std::string_view value;
};
/// @param withKey the answer is that of first or next
Answer decodeAnswer(std::string_view message, bool withKey);

/// Reads XDR from a byte string; fails once and stays failed.
class Reader {
public:
    explicit Reader(std::string_view bytes) : m_rest(bytes) {}
    std::uint32_t number();
    std::string_view bytes();
    bool good() const { return m_good; }
    std::size_t left() const { return m_rest.size(); }

private:
    std::string_view m_rest;
    bool m_good = true;
};

/// Size of the header of a successful reply with an empty verifier.
constexpr std::size_t REPLY_HEADER = 24;

using Pairs = std::vector<std::pair<std::string, std::string>>;
/// Reads "key<TAB>value" lines.
/// @throws std::runtime_error naming file and line
Pairs readPairs(const std::string& path);

} // namespace load
