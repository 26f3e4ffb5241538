#pragma once

#include "common/UpdatePace.h"

#include <karst/Exceptions.h>

#include <string_view>

namespace nis {

/// A listing of users or groups that is ended however it goes. A failure to end one never hides
/// what went wrong before.
template <typename End> class Listing {
public:
    explicit Listing(End end) : m_end(std::move(end)) {}
    ~Listing() {
        try {
            m_end();
        } catch (const tessa::TESSAException&) {
            // The next listing begins afresh.
        }
    }
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;

private:
    End m_end;
};

/// Calls `use` with every entry that `next` delivers. An entry that is gone by the time it is asked
/// for is skipped. No lock may be held.
/// @throws what `next` throws, but for the end of the list
template <typename Next, typename Use> void forEachEntry(const Next& next, const Use& use) {
    // A daemon that never gets past missing entries must not hold the update for ever.
    constexpr int MOST_MISSING = 10000;
    int missing = 0;
    UpdatePace pace;
    while (true) {
        pace.step();
        try {
            const auto entry = next();
            missing = 0;
            use(entry);
        } catch (const tessa::EndOfListException&) {
            return;
        } catch (const tessa::NotFoundException&) {
            if (++missing > MOST_MISSING) {
                throw;
            }
        }
    }
}

/// Whether a text can be a field of a line.
inline bool isField(std::string_view text) {
    return text.find_first_of(std::string_view(":\n\0", 3)) == std::string_view::npos;
}

/// Whether a text can be the name of an account.
inline bool isAccountName(std::string_view name) {
    return !name.empty() && isField(name) && name.find(',') == std::string_view::npos;
}

} // namespace nis
