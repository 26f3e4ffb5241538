#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

namespace quorad {

/// What a filter is applied to.
class FilterSubject {
public:
    using Test = std::function<bool(std::string_view value)>;

    virtual ~FilterSubject() = default;
    /// Whether `test` accepts a value of the attribute, whose name has lower-case letters. It is
    /// not called for an attribute that the subject does not have.
    virtual bool anyValue(std::string_view attribute, const Test& test) const = 0;
};

/// A search filter (RFC 4515): "&", "|", "!", "=", "=*", substrings, ">=", "<=", and "~=" as "=".
/// Extensible matches are refused.
///
/// Attribute names and text values compare without regard to letter case, the values of objectGUID
/// and objectSid exactly, those of ">=" and "<=" as numbers when both are. The USN attributes are
/// always numbers. Immutable; safe to share between threads.
class Filter {
public:
    /// Bounds on usnchanged that every match keeps, both inclusive.
    struct UsnRange {
        std::int64_t lower = std::numeric_limits<std::int64_t>::min();
        std::int64_t upper = std::numeric_limits<std::int64_t>::max();
        bool hasLower = false;
        bool complete = false; ///< keeping the bounds is all that the filter asks for
    };

    static constexpr std::size_t MAX_LENGTH = std::size_t{64} * 1024;
    static constexpr unsigned MAX_DEPTH = 64;

    /// @throws tessa::BadDataException that names the position of the mistake
    explicit Filter(std::string_view text);
    ~Filter();
    Filter(Filter&&) noexcept;
    Filter& operator=(Filter&&) noexcept;

    bool matches(const FilterSubject& subject) const;
    const UsnRange& usnRange() const { return m_range; }

    struct Node; ///< of the expression; for the implementation

private:
    std::unique_ptr<const Node> m_root;
    UsnRange m_range;
};

} // namespace quorad
