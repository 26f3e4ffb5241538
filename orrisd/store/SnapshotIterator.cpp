#include "store/SnapshotIterator.h"

#include <cstdint>
#include <cstring>

namespace nis {

namespace {

constexpr std::size_t LENGTH_SIZE = sizeof(std::uint16_t);

/// The string that the bytes begin with, where they have all of it; then they go on behind it.
bool viewString(std::string_view& bytes, std::string_view& text) noexcept {
    std::uint16_t length = 0;
    if (bytes.size() < LENGTH_SIZE) {
        return false;
    }
    std::memcpy(&length, bytes.data(), LENGTH_SIZE);
    if (bytes.size() - LENGTH_SIZE < length) {
        return false;
    }
    text = {bytes.data() + LENGTH_SIZE, length};
    bytes.remove_prefix(LENGTH_SIZE + length);
    return true;
}

} // namespace

MapIterator& CacheSnapshot::SnapshotIterator::operator++() {
    if (!m_atEnd) {
        m_current = m_snapshot->readEntry(m_position, m_window);
        m_skippedTo = NOT_STARTED;
        m_atEnd = m_current.key.empty();
    }
    return *this;
}

MapEntry CacheSnapshot::SnapshotIterator::operator*() {
    if (!m_atEnd && m_skippedTo != NOT_STARTED) {
        m_current = m_snapshot->readEntry(m_skippedTo, m_window);
        m_skippedTo = NOT_STARTED;
    }
    if (!m_atEnd && m_current.key.empty()) {
        ++*this;
    }
    return m_atEnd ? MapEntry::NOT_FOUND : m_current;
}

std::size_t CacheSnapshot::SnapshotIterator::peek(std::span<View> entries) noexcept {
    const std::uint64_t end = m_window.start + m_window.length;
    if (m_atEnd || m_position == NOT_STARTED || m_position < m_window.start || m_position > end) {
        return 0;
    }
    const char* const window = m_window.bytes.data();
    std::string_view rest(window + (m_position - m_window.start), end - m_position);
    std::size_t count = 0;
    while (count < entries.size() && viewString(rest, entries[count].key) &&
           !entries[count].key.empty() && viewString(rest, entries[count].value)) {
        ++count;
    }
    return count;
}

void CacheSnapshot::SnapshotIterator::skipTo(const View& entry) noexcept {
    m_skippedTo = positionOf(entry.key.data()) - LENGTH_SIZE;
    m_position = positionOf(entry.value.data()) + entry.value.size();
}

/// Where in the file a byte of the window comes from.
std::uint64_t CacheSnapshot::SnapshotIterator::positionOf(const char* bytes) const noexcept {
    return m_window.start + static_cast<std::uint64_t>(bytes - m_window.bytes.data());
}

} // namespace nis
