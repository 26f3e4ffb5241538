#pragma once

#include <stdexcept>

namespace twine {

/// The peer cannot be reached: no socket, refused, no permission. Nothing was sent.
class ConnectError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A connection broke, or a deadline passed, while a call was under way.
class CallError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The peer sent something that is no frame: larger than allowed, or cut off.
class FrameError : public CallError {
    using CallError::CallError;
};

} // namespace twine
