#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorad::ldif {

/// What tells one state of a file from another without reading it.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = -1;    ///< -1: there is no file
    std::int64_t modified = 0; ///< nanoseconds since 1970
    std::int64_t changed = 0;  ///< the same for the inode

    bool exists() const { return size >= 0; }
    bool sameFile(const FileIdentity& other) const {
        return device == other.device && inode == other.inode;
    }
    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
    /// For the index: the same text means the same state.
    std::string toString() const;

    /// @param why when there is no file to be read: the reason
    static FileIdentity of(const std::string& path, std::string& why);
};

/// A file that is read from its begin to its end. One thread at a time.
class SourceFile {
public:
    /// @throws tessa::SystemException when it cannot be opened, or is not a regular file
    explicit SourceFile(const std::string& path);
    ~SourceFile();
    SourceFile(const SourceFile&) = delete;
    SourceFile& operator=(const SourceFile&) = delete;

    FileIdentity identity() const;
    /// @return 0 at the end
    /// @throws tessa::SystemException
    std::size_t read(char* buffer, std::size_t size);

private:
    const std::string m_path;
    int m_file = -1;
};

} // namespace quorad::ldif
