#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorad::ldap {

/// The raw bytes of a GUID.
using GuidBytes = std::array<char, 16>;

GuidBytes toBytes(std::string_view guid);
/// Byte order, as the database has them.
bool isBefore(const GuidBytes& a, const GuidBytes& b);

/// Any number of GUIDs, put into order with little memory: what does not fit goes, sorted, into a
/// file without a name. First they are added, then read. One thread at a time.
///
/// Operations throw tessa::IPCException when the file cannot be written or read.
class GuidRuns {
public:
    /// @param folder where there is room for the file
    /// @param atOnce how many are kept in memory before they are written
    explicit GuidRuns(std::string folder, std::size_t atOnce = 65536);
    ~GuidRuns();
    GuidRuns(const GuidRuns&) = delete;
    GuidRuns& operator=(const GuidRuns&) = delete;

    void add(const GuidBytes& guid);
    std::size_t size() const { return m_size; }

    /// Ends the adding. Has to come before next().
    void sort();
    /// In the order of isBefore, each as often as it was added.
    /// @return false at the end
    bool next(GuidBytes& guid);

private:
    /// A sorted piece of the file, with as much of it as is in memory.
    struct Run {
        std::uint64_t at = 0; ///< in the file: what is not in memory yet
        std::uint64_t end = 0;
        std::vector<GuidBytes> ready;
        std::size_t taken = 0;
    };
    void createFile();
    void writeRun();
    bool refill(Run& run) const;

    const std::string m_folder;
    const std::size_t m_atOnce;
    int m_file = -1;
    std::uint64_t m_fileSize = 0;
    std::size_t m_size = 0;
    std::vector<GuidBytes> m_fresh;
    std::vector<Run> m_runs;
    std::vector<std::size_t> m_heap; ///< runs that have more, the one with the least GUID first
};

} // namespace quorad::ldap
