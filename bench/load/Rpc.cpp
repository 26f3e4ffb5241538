#include "load/Rpc.h"

#include <cstring>
#include <fstream>
#include <stdexcept>

#include <arpa/inet.h>

namespace load {

namespace {

void putNumber(std::string& out, std::uint32_t value) {
    const std::uint32_t network = htonl(value);
    out.append(reinterpret_cast<const char*>(&network), sizeof network);
}

void putBytes(std::string& out, std::string_view bytes) {
    putNumber(out, static_cast<std::uint32_t>(bytes.size()));
    out.append(bytes);
    out.append((4 - bytes.size() % 4) % 4, '\0');
}

} // namespace

std::string encodeCall(std::uint32_t xid, Procedure procedure, std::string_view domain,
                       std::string_view map, std::optional<std::string_view> key) {
    std::string call;
    // xid, CALL, RPC version 2, program, version, procedure, then credentials and verifier: none
    for (const std::uint32_t word :
         {xid, 0U, 2U, 100004U, 2U, std::uint32_t{procedure}, 0U, 0U, 0U, 0U}) {
        putNumber(call, word);
    }
    putBytes(call, domain);
    putBytes(call, map);
    if (key) {
        putBytes(call, *key);
    }
    return call;
}

std::uint32_t transactionId(std::string_view message) {
    std::uint32_t xid = 0;
    if (message.size() >= sizeof xid) {
        std::memcpy(&xid, message.data(), sizeof xid);
    }
    return ntohl(xid);
}

std::uint32_t Reader::number() {
    std::uint32_t value = 0;
    if (m_rest.size() < sizeof value) {
        m_good = false;
        return 0;
    }
    std::memcpy(&value, m_rest.data(), sizeof value);
    m_rest.remove_prefix(sizeof value);
    return ntohl(value);
}

std::string_view Reader::bytes() {
    const std::size_t length = number();
    const std::size_t padded = (length + 3) / 4 * 4;
    if (!m_good || padded > m_rest.size()) {
        m_good = false;
        return {};
    }
    const std::string_view result = m_rest.substr(0, length);
    m_rest.remove_prefix(padded);
    return result;
}

Answer decodeAnswer(std::string_view message, bool withKey) {
    Reader reader(message);
    reader.number(); // xid
    const bool reply = reader.number() == 1 && reader.number() == 0;
    reader.number(); // verifier
    reader.bytes();
    Answer answer;
    if (!reply || reader.number() != 0) {
        return answer;
    }
    answer.status = static_cast<std::int32_t>(reader.number());
    // The protocol's record of first and next has the value before the key.
    answer.value = reader.bytes();
    if (withKey) {
        answer.key = reader.bytes();
    }
    answer.accepted = reader.good();
    return answer;
}

Pairs readPairs(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    Pairs pairs;
    std::string line;
    while (std::getline(file, line)) {
        const auto tab = line.find('\t');
        if (tab == std::string::npos) {
            throw std::runtime_error(path + ":" + std::to_string(pairs.size() + 1) +
                                     ": no tab between key and value");
        }
        pairs.emplace_back(line.substr(0, tab), line.substr(tab + 1));
    }
    if (pairs.empty()) {
        throw std::runtime_error(path + " has no entries");
    }
    return pairs;
}

} // namespace load
