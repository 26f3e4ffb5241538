#pragma once

#include <string>
#include <utility>

#include <unistd.h>

namespace nis {

/// Deletes a file at the end of the scope, unless released: what was not finished is not left.
class FileGuard {
public:
    explicit FileGuard(std::string name) : m_name(std::move(name)) {}
    ~FileGuard() {
        if (m_armed) {
            ::unlink(m_name.c_str());
        }
    }
    FileGuard(const FileGuard&) = delete;
    FileGuard& operator=(const FileGuard&) = delete;
    void release() { m_armed = false; }

private:
    std::string m_name;
    bool m_armed = true;
};

} // namespace nis
