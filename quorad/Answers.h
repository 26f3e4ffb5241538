#pragma once

#include <karst/Exceptions.h>
#include <karst/Messages.h>
#include <twine/Frame.h>

#include <stdexcept>
#include <string>

/// How the service builds its answers.
namespace quorad {

/// Largest item (object, user) that an answer can carry beside its own few words.
inline constexpr std::size_t MAX_ITEM_BYTES = twine::MAX_FRAME - 1024;

/// Raised for a search or an enumeration that the connection does not have.
struct NoSuchCursor : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// An answer of status Q_OK, its result still to be filled in.
inline q_answer success(unsigned operation) {
    q_answer answer{};
    answer.status = Q_OK;
    answer.q_answer_u.result = q_result{};
    answer.q_answer_u.result.operation = operation;
    return answer;
}

inline auto& resultOf(q_answer& answer) {
    return answer.q_answer_u.result.q_result_u;
}

/// The frame of an answer.
/// @throws tessa::BadDataException when no frame can carry it
inline std::string encodeBounded(const q_answer& answer) {
    std::string frame = tessa::messages::encode(answer);
    if (frame.size() > twine::MAX_FRAME) {
        TESSA_THROW(tessa::BadDataException, "an answer of " + std::to_string(frame.size()) +
                                                 " bytes is larger than a message may be (" +
                                                 std::to_string(twine::MAX_FRAME) + ")");
    }
    return frame;
}

} // namespace quorad
