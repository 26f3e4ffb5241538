#pragma once

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace test {

/// Catches what is written to standard error during its life.
class CapturedError {
public:
    CapturedError()
        : m_before(::dup(STDERR_FILENO)), m_file(::memfd_create("stderr", MFD_CLOEXEC)) {
        if (m_before < 0 || m_file < 0 || ::dup2(m_file, STDERR_FILENO) < 0) {
            throw std::runtime_error("cannot redirect standard error");
        }
    }
    ~CapturedError() {
        ::dup2(m_before, STDERR_FILENO);
        ::close(m_before);
        ::close(m_file);
    }
    CapturedError(const CapturedError&) = delete;
    CapturedError& operator=(const CapturedError&) = delete;

    std::string text() const {
        std::string result;
        std::array<char, 4096> block{};
        ssize_t got = 0;
        while ((got = ::pread(m_file, block.data(), block.size(),
                              static_cast<off_t>(result.size()))) > 0) {
            result.append(block.data(), static_cast<std::size_t>(got));
        }
        return result;
    }

private:
    int m_before;
    int m_file;
};

} // namespace test
