#pragma once

#include "store/CacheSnapshot.h"

#include <string>
#include <utility>

namespace nis {

/// Cursor over a snapshot, which it keeps alive. Holds its own position and read buffer.
class CacheSnapshot::SnapshotIterator : public MapIterator {
public:
    explicit SnapshotIterator(boost::shared_ptr<const CacheSnapshot> snapshot)
        : m_snapshot(std::move(snapshot)) {}
    MapIterator& operator++() override;
    MapEntry operator*() override;
    std::string getMapName() const override { return m_snapshot->getMapName(); }
    std::size_t peek(std::span<View> entries) noexcept override;
    void skipTo(const View& entry) noexcept override;

private:
    std::uint64_t positionOf(const char* bytes) const noexcept;

    boost::shared_ptr<const CacheSnapshot> m_snapshot;
    MapEntry m_current; ///< its key is empty before the first advance
    bool m_atEnd = false;
    std::uint64_t m_position = NOT_STARTED;  ///< behind the current entry
    std::uint64_t m_skippedTo = NOT_STARTED; ///< the current entry, which m_current is not yet
    Window m_window;
};

} // namespace nis
