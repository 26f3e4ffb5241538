#include "karst/Messages.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

#include <arpa/inet.h>

namespace tessa::messages {

namespace {

constexpr std::size_t UNIT = BYTES_PER_XDR_UNIT;

std::size_t padded(std::size_t length) {
    return (length + UNIT - 1) / UNIT * UNIT;
}

// What an XDR stream of ours stands for; x_private points to it.
struct Source {
    const char* at;
    std::size_t left;
    Arena* arena;
};

struct Sink {
    std::string* out;
};

Source& source(XDR* xdr) {
    return *static_cast<Source*>(xdr->x_private);
}
std::string& out(XDR* xdr) {
    return *static_cast<Sink*>(xdr->x_private)->out;
}

bool_t getLong(XDR* xdr, long* value) {
    Source& from = source(xdr);
    if (from.left < UNIT) {
        return FALSE;
    }
    std::uint32_t word = 0;
    std::memcpy(&word, from.at, UNIT);
    *value = static_cast<std::int32_t>(ntohl(word));
    from.at += UNIT;
    from.left -= UNIT;
    return TRUE;
}

bool_t putLong(XDR* xdr, const long* value) {
    const std::uint32_t word = htonl(static_cast<std::uint32_t>(*value));
    char raw[UNIT];
    std::memcpy(raw, &word, UNIT);
    out(xdr).append(raw, UNIT);
    return TRUE;
}

// The schema's types need only words, byte strings and arrays: the rest of the stream operations is
// refused instead of being half right.
bool_t noLong(XDR*, long*) {
    return FALSE;
}
bool_t noPutLong(XDR*, const long*) {
    return FALSE;
}
bool_t noGetBytes(XDR*, char*, u_int) {
    return FALSE;
}
bool_t noPutBytes(XDR*, const char*, u_int) {
    return FALSE;
}
u_int noPosition(XDR*) {
    return 0;
}
bool_t noSetPosition(XDR*, u_int) {
    return FALSE;
}
std::int32_t* noInline(XDR*, u_int) {
    return nullptr;
}
void noDestroy(XDR*) {}
bool_t noControl(XDR*, int, void*) {
    return FALSE;
}

const XDR::xdr_ops SOURCE_OPERATIONS = {getLong,    noPutLong,  noGetBytes,
                                        noPutBytes, noPosition, noSetPosition,
                                        noInline,   noDestroy,  noControl};
const XDR::xdr_ops SINK_OPERATIONS = {noLong,        putLong,  noGetBytes, noPutBytes, noPosition,
                                      noSetPosition, noInline, noDestroy,  noControl};

template <typename Message>
bool decodeMessage(std::string_view frame, Message& message, Arena& arena,
                   bool_t (*routine)(XDR*, Message*)) {
    message = Message{};
    Source from{frame.data(), frame.size(), &arena};
    XDR xdr{};
    xdr.x_op = XDR_DECODE;
    xdr.x_ops = &SOURCE_OPERATIONS;
    xdr.x_private = &from;
    return routine(&xdr, &message) != FALSE && from.left == 0;
}

template <typename Message>
std::string encodeMessage(const Message& message, bool_t (*routine)(XDR*, Message*)) {
    std::string frame;
    Sink to{&frame};
    XDR xdr{};
    xdr.x_op = XDR_ENCODE;
    xdr.x_ops = &SINK_OPERATIONS;
    xdr.x_private = &to;
    // Encoding routines do not write to the message; their signature serves both directions.
    if (routine(&xdr, const_cast<Message*>(&message)) == FALSE) {
        throw std::logic_error("message cannot be encoded");
    }
    return frame;
}

bool_t decodeBytes(XDR* xdr, q_bytes& value) {
    long word = 0;
    if (getLong(xdr, &word) == FALSE) {
        return FALSE;
    }
    const auto length = static_cast<std::uint32_t>(word);
    Source& from = source(xdr);
    const std::size_t taken = padded(length);
    if (taken > from.left) {
        return FALSE;
    }
    value = {from.at, length};
    from.at += taken;
    from.left -= taken;
    return TRUE;
}

bool_t encodeBytes(XDR* xdr, const q_bytes& value) {
    const long length = value.length;
    putLong(xdr, &length);
    std::string& frame = out(xdr);
    frame.append(value.data, value.length);
    frame.append(padded(value.length) - value.length, '\0');
    return TRUE;
}

} // namespace

void* Arena::allocate(std::size_t size) {
    void* memory = m_memory.allocate(std::max<std::size_t>(size, 1), alignof(std::max_align_t));
    std::memset(memory, 0, size);
    return memory;
}

q_bytes bytes(std::string_view text) {
    if (text.size() > std::numeric_limits<u_int>::max()) {
        throw std::length_error("byte string too long for a message");
    }
    return {text.data(), static_cast<u_int>(text.size())};
}

bool operationOf(std::string_view frame, unsigned& operation) {
    std::uint32_t word = 0;
    if (frame.size() < UNIT) {
        return false;
    }
    std::memcpy(&word, frame.data(), UNIT);
    operation = ntohl(word);
    return true;
}

bool decode(std::string_view frame, q_request& request, Arena& arena) {
    return decodeMessage(frame, request, arena, xdr_q_request);
}

bool decode(std::string_view frame, q_answer& answer, Arena& arena) {
    return decodeMessage(frame, answer, arena, xdr_q_answer);
}

std::string encode(const q_request& request) {
    return encodeMessage(request, xdr_q_request);
}
std::string encode(const q_answer& answer) {
    return encodeMessage(answer, xdr_q_answer);
}

q_object toMessage(const ADObject& object, Arena& arena) {
    const auto& attributes = object.attributes();
    q_object message{};
    message.attributes.attributes_len = static_cast<u_int>(attributes.size());
    message.attributes.attributes_val = arena.array<q_attribute>(attributes.size());
    q_attribute* to = message.attributes.attributes_val;
    for (const ADObject::NamedAttribute& attribute : attributes) {
        to->name = bytes(attribute.name);
        to->values.values_len = static_cast<u_int>(attribute.values.size());
        to->values.values_val = arena.array<q_bytes>(attribute.values.size());
        std::transform(attribute.values.begin(), attribute.values.end(), to->values.values_val,
                       bytes);
        ++to;
    }
    return message;
}

q_user toMessage(const UserRecord& user) {
    q_user message{};
    message.name = bytes(user.name);
    message.uid = user.uid;
    message.gid = user.gid;
    message.gecos = bytes(user.gecos);
    message.home = bytes(user.homeDirectory);
    message.shell = bytes(user.shell);
    message.password_hash = bytes(user.passwordHash);
    message.account_control = user.accountControl;
    message.enabled = user.enabled ? TRUE : FALSE;
    message.password_time = user.passwordTime;
    message.password_expiry = user.passwordExpiry;
    message.account_expires = user.accountExpires;
    return message;
}

q_group toMessage(const GroupRecord& group, std::size_t first, std::size_t room, Arena& arena) {
    std::size_t last = first;
    while (last < group.members.size()) {
        const std::size_t size = encodedSize(group.members[last]);
        if (size > room && last > first) {
            break;
        }
        room -= std::min(size, room);
        ++last;
    }
    q_group message{};
    message.name = bytes(group.name);
    message.gid = group.gid;
    message.members.members_len = static_cast<u_int>(last - first);
    message.members.members_val = arena.array<q_bytes>(last - first);
    for (std::size_t at = first; at < last; ++at) {
        message.members.members_val[at - first] = bytes(group.members[at]);
    }
    message.continues = last < group.members.size() ? TRUE : FALSE;
    return message;
}

std::vector<std::string> fromMessage(const q_bytes* items, std::size_t count) {
    std::vector<std::string> texts;
    texts.reserve(count);
    for (std::size_t at = 0; at < count; ++at) {
        texts.emplace_back(view(items[at]));
    }
    return texts;
}

ADObject fromMessage(const q_object& object) {
    ADObject result;
    result.reserve(object.attributes.attributes_len);
    for (u_int at = 0; at < object.attributes.attributes_len; ++at) {
        const q_attribute& attribute = object.attributes.attributes_val[at];
        result.set(view(attribute.name),
                   fromMessage(attribute.values.values_val, attribute.values.values_len));
    }
    return result;
}

UserRecord fromMessage(const q_user& user) {
    UserRecord record;
    record.name = view(user.name);
    record.uid = user.uid;
    record.gid = user.gid;
    record.gecos = view(user.gecos);
    record.homeDirectory = view(user.home);
    record.shell = view(user.shell);
    record.passwordHash = view(user.password_hash);
    record.accountControl = user.account_control;
    record.enabled = user.enabled != FALSE;
    record.passwordTime = user.password_time;
    record.passwordExpiry = user.password_expiry;
    record.accountExpires = user.account_expires;
    return record;
}

GroupRecord fromMessage(const q_group& group) {
    GroupRecord record;
    record.name = view(group.name);
    record.gid = group.gid;
    appendMembers(group, record);
    return record;
}

void appendMembers(const q_group& group, GroupRecord& to) {
    to.members.reserve(to.members.size() + group.members.members_len);
    for (u_int at = 0; at < group.members.members_len; ++at) {
        to.members.emplace_back(view(group.members.members_val[at]));
    }
}

std::size_t encodedSize(std::string_view bytes) {
    return UNIT + padded(bytes.size());
}

std::size_t encodedSize(const ADObject& object) {
    std::size_t size = UNIT;
    for (const ADObject::NamedAttribute& attribute : object.attributes()) {
        size += encodedSize(attribute.name) + UNIT;
        for (const std::string& value : attribute.values) {
            size += encodedSize(value);
        }
    }
    return size;
}

std::size_t encodedSize(const UserRecord& user) {
    constexpr std::size_t WORDS = 4 + 3 * 2; // uid, gid, control, enabled; three time stamps
    return WORDS * UNIT + encodedSize(user.name) + encodedSize(user.gecos) +
           encodedSize(user.homeDirectory) + encodedSize(user.shell) +
           encodedSize(user.passwordHash);
}

std::size_t encodedSize(const GroupRecord& group) {
    constexpr std::size_t WORDS = 3; // gid, member count, continues
    std::size_t size = WORDS * UNIT + encodedSize(group.name);
    for (const std::string& member : group.members) {
        size += encodedSize(member);
    }
    return size;
}

} // namespace tessa::messages

using tessa::messages::Source;

bool_t xdr_q_bytes(XDR* xdr, q_bytes* value) {
    return xdr->x_op == XDR_DECODE ? tessa::messages::decodeBytes(xdr, *value)
                                   : tessa::messages::encodeBytes(xdr, *value);
}

// rpcgen's routines differ in the type of their second argument and are called through one pointer
// type, as the XDR library does; clang's check of function types cannot hold here.
#if defined(__clang__)
__attribute__((no_sanitize("function")))
#endif
bool_t
xdr_bounded_array(XDR* xdr, char** items, u_int* count, u_int /*maximum*/, u_int itemSize,
                  xdrproc_t routine) {
    const auto item = reinterpret_cast<bool_t (*)(XDR*, void*)>(routine);
    if (xdr_u_int(xdr, count) == FALSE) {
        return FALSE;
    }
    if (xdr->x_op == XDR_DECODE) {
        Source& from = tessa::messages::source(xdr);
        if (*count > from.left / BYTES_PER_XDR_UNIT) { // no item takes less than a word
            *count = 0;
            return FALSE;
        }
        *items = static_cast<char*>(from.arena->allocate(std::size_t{*count} * itemSize));
    }
    for (u_int at = 0; at < *count; ++at) {
        if (item(xdr, *items + std::size_t{at} * itemSize) == FALSE) {
            return FALSE;
        }
    }
    return TRUE;
}
