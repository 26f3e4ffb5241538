#pragma once

#include <exception>
#include <string>

namespace tessa {

/// Root of everything that this library raises. Immutable once built; safe to copy between threads.
///
/// `what()` is the message alone: it is what log lines show. `file()` and `line()` name the place
/// that raised it (base name only) and are for developers.
class TESSAException : public std::exception {
public:
    explicit TESSAException(std::string message, const char* file = "", unsigned line = 0)
        : m_message(std::move(message)), m_file(file), m_line(line) {}

    const char* what() const noexcept override { return m_message.c_str(); }
    const std::string& message() const noexcept { return m_message; }
    const char* file() const noexcept { return m_file; }
    unsigned line() const noexcept { return m_line; }

private:
    std::string m_message;
    const char* m_file;
    unsigned m_line;
};

/// One level of the family below the root. Each kind is a type of its own, to be caught by type.
// NOLINTBEGIN(bugprone-macro-parentheses): the name of a class takes none
#define KARST_EXCEPTION(Name)                                                                      \
    class Name : public TESSAException {                                                           \
    public:                                                                                        \
        using TESSAException::TESSAException;                                                      \
    }
// NOLINTEND(bugprone-macro-parentheses)

/// The local daemon cannot be reached: no socket, connection refused, no permission.
KARST_EXCEPTION(IOException);
/// A call to the local daemon failed after it was sent (connection lost, deadline passed), or the
/// daemon answered that the directory could not be asked.
KARST_EXCEPTION(IPCException);
/// The named thing does not exist: object, setting, directory, user.
KARST_EXCEPTION(NotFoundException);
/// Data has not the form that it must have: a DN, a GUID, a setting, an answer of the daemon.
KARST_EXCEPTION(BadDataException);
/// An enumeration of users or groups has no more entries.
KARST_EXCEPTION(EndOfListException);
/// The operating system refused something; the message ends with its text.
KARST_EXCEPTION(SystemException);
/// A keyed store could not be opened, read or written, or is damaged.
KARST_EXCEPTION(DBException);

#undef KARST_EXCEPTION

/// Base name of a path, evaluated at compile time when given a literal.
constexpr const char* baseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

} // namespace tessa

/// Raises `Type` with the message and the place of the raise.
#define TESSA_THROW(Type, message) throw Type((message), tessa::baseName(__FILE__), __LINE__)
