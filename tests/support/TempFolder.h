#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace test {

/// A fresh folder that is the working directory for the life of the object, as the cache directory
/// is for the daemon. Removed with all that is in it.
class TempFolder {
public:
    TempFolder() : m_before(std::filesystem::current_path()) {
        char name[] = "/tmp/orrisd-test-XXXXXX";
        if (::mkdtemp(name) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        m_path = name;
        std::filesystem::current_path(m_path);
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::current_path(m_before, ignored);
        std::filesystem::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_before;
    std::filesystem::path m_path;
};

inline std::string readFile(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& name, const std::string& bytes) {
    std::ofstream file(name, std::ios::binary | std::ios::trunc);
    file << bytes;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + name);
    }
}

} // namespace test
