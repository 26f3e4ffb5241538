#pragma once

#include <cstddef>
#include <string>

namespace quorad::admin {

/// A bar on standard error while something long is done, if that is a terminal; nothing otherwise.
/// Taken away by the destructor.
class Progress {
public:
    /// @param total steps; 0: none are to be done, nothing is shown
    Progress(std::string what, std::size_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// One step is done.
    void step();

    /// "Importing hosts [#####     ]  50% 5/10", to fit in a number of columns. Pure.
    static std::string render(const std::string& what, std::size_t done, std::size_t total,
                              std::size_t columns);

private:
    void show();

    const std::string m_what;
    const std::size_t m_total;
    const bool m_visible;
    std::size_t m_done = 0;
    unsigned m_shown = 101; ///< per cent, when last shown
};

} // namespace quorad::admin
