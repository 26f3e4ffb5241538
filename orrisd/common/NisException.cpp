#include "common/NisException.h"

namespace nis {

NisException::NisException(const std::string& message, const std::string& arg, const char* file,
                           unsigned line)
    : m_message(message), m_arg(arg), m_file(file), m_line(line) {}

NisException::NisException(const std::string& message, const char* arg, const char* file,
                           unsigned line)
    : NisException(message, std::string(arg != nullptr ? arg : ""), file, line) {}

NisException::NisException(const char* message, const char* arg, const char* file, unsigned line)
    : NisException(std::string(message != nullptr ? message : ""), arg, file, line) {}

NisException::NisException(const std::string& message, const char* file, unsigned line)
    : NisException(message, std::string(), file, line) {}

NisException::NisException(const char* message, const char* file, unsigned line)
    : NisException(message, "", file, line) {}

const std::string& NisException::msg() {
    if (m_cachedMessage.empty()) {
        m_cachedMessage = m_message + " from ";
        if (m_file != nullptr) {
            m_cachedMessage += std::string(m_file) + ":" + std::to_string(m_line);
        }
    }
    return m_cachedMessage;
}

std::string NisExMsgConcat(const char* prefix, char separator, const char* rest) {
    std::string text;
    if (prefix == nullptr) {
        return text;
    }
    text = prefix;
    text += separator;
    if (rest != nullptr) {
        text += rest;
    }
    return text;
}

} // namespace nis
