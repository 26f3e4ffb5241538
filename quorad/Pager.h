#pragma once

#include "Backend.h"

#include <karst/Exceptions.h>
#include <karst/Messages.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quorad {

/// Bounds of a page: whichever comes first. A single item may be larger than PAGE_BYTES, as long as
/// it fits a frame.
inline constexpr std::size_t PAGE_ITEMS = 1000;
inline constexpr std::size_t PAGE_BYTES = 1024UL * 1024;

/// A search or an enumeration of the directory, cut into pages. Holds the items that were read and
/// not yet sent; a page lies in this buffer until the next is asked for. One thread at a time.
template <typename Item> class Pager {
public:
    Pager(std::shared_ptr<Backend> backend, std::unique_ptr<Cursor<Item>> cursor)
        : m_backend(std::move(backend)), m_cursor(std::move(cursor)) {}

    /// Whether there may be more items. A page may still turn out empty.
    bool more() const { return m_at < m_items.size() || m_more; }

    /// Reads further items when those at hand have been taken.
    void fill() {
        if (m_at < m_items.size() || !m_more) {
            return;
        }
        m_items.clear();
        m_at = 0;
        m_more = m_cursor->nextPage(m_items, m_limit);
        // Items differ in size by orders of magnitude: aim at about a page's worth of bytes.
        std::size_t bytes = 1;
        for (const Item& item : m_items) {
            bytes += tessa::messages::encodedSize(item);
        }
        const std::size_t fitting = m_items.size() * PAGE_BYTES / bytes;
        m_limit = std::clamp<std::size_t>(fitting, 1, PAGE_ITEMS);
    }

    /// The next item at hand; nullptr when a page must end here.
    const Item* front() const { return m_at < m_items.size() ? &m_items[m_at] : nullptr; }
    void pop() { ++m_at; }

private:
    // The first read is moderate: what the items are like is known after it.
    static constexpr std::size_t FIRST_READ = 256;

    std::shared_ptr<Backend> m_backend; // keeps the cursor's directory alive
    std::unique_ptr<Cursor<Item>> m_cursor;
    std::vector<Item> m_items;
    std::size_t m_at = 0;
    std::size_t m_limit = FIRST_READ;
    bool m_more = true;
};

} // namespace quorad
