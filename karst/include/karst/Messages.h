#pragma once

#include "karst/LocalRpcSession.h"

#include <cstddef>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

#include <quorad.h> // generated from karst/schema/quorad.x

/// The messages of the local protocol, for its two ends: LocalRpcSession and the directory client
/// daemon. Byte strings of a message are views: into the frame when it was decoded, into the
/// caller's strings when it is to be encoded. Pure functions.
namespace tessa::messages {

/// Memory of a message's arrays, given back as a whole. One message at a time.
class Arena {
public:
    template <typename T> T* array(std::size_t count) {
        return static_cast<T*>(allocate(count * sizeof(T)));
    }
    /// Zeroed bytes.
    void* allocate(std::size_t size);
    void clear() { m_memory.release(); }

private:
    std::pmr::monotonic_buffer_resource m_memory;
};

inline std::string_view view(const q_bytes& bytes) {
    return {bytes.data, bytes.length};
}
inline std::string text(const q_bytes& bytes) {
    return std::string(view(bytes));
}
/// @throws std::length_error when the text is longer than any frame may be
q_bytes bytes(std::string_view text);

/// Number of the operation that a request asks for.
/// @return false when the frame is too short to have one
bool operationOf(std::string_view frame, unsigned& operation);

/// Take a frame apart. Announced lengths and counts are checked against what the frame holds before
/// anything is allocated; bytes left over behind the message are an error.
/// @return false when the frame is malformed
bool decode(std::string_view frame, q_request& request, Arena& arena);
bool decode(std::string_view frame, q_answer& answer, Arena& arena);

std::string encode(const q_request& request);
std::string encode(const q_answer& answer);

// Between messages and what the library hands out. The results of toMessage refer to their source.
q_object toMessage(const ADObject& object, Arena& arena);
q_user toMessage(const UserRecord& user);
/// Members from `first` on, as many as fit `room` bytes (at least one).
q_group toMessage(const GroupRecord& group, std::size_t first, std::size_t room, Arena& arena);

ADObject fromMessage(const q_object& object);
UserRecord fromMessage(const q_user& user);
GroupRecord fromMessage(const q_group& group);
void appendMembers(const q_group& group, GroupRecord& to);
std::vector<std::string> fromMessage(const q_bytes* items, std::size_t count);

/// Bytes that the item takes in a frame.
std::size_t encodedSize(std::string_view bytes);
std::size_t encodedSize(const ADObject& object);
std::size_t encodedSize(const UserRecord& user);
std::size_t encodedSize(const GroupRecord& group);

} // namespace tessa::messages
