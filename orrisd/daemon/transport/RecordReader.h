#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace nis {

/// Puts the records of a TCP stream together from their fragments, from whatever pieces the network
/// delivers. Holds no more than one record and never more than its limit; a mark that promises more
/// is bogus before anything is allocated for it. For one thread at a time.
class RecordReader {
public:
    enum class Status {
        NeedMore, ///< all input was taken, the record is not complete
        Complete, ///< a record is there; input behind it was left
        Bogus,    ///< no client of the protocol sends this; the stream is of no further use
    };

    explicit RecordReader(std::size_t limit) : m_limit(limit) {}

    /// Takes input up to the end of the record under way.
    /// @param input bytes to take; cut by what was taken
    /// @param record on Complete the record: valid until the next call, or, where the whole record
    ///               lay in the input, as long as that
    Status feed(std::span<char>& input, std::span<char>& record);

    /// Whether a record has begun and not ended.
    bool inRecord() const { return m_inRecord; }

private:
    /// Marks of empty fragments in one record; a client has no reason to send even one.
    static constexpr unsigned EMPTY_FRAGMENTS_MAX = 16;
    static constexpr std::size_t MARK_SIZE = 4;

    bool takeMark(std::span<char>& input);
    bool markIsBogus();
    void takeBody(std::span<char>& input);
    bool wholeRecord(std::span<char>& input, std::span<char>& record) const;
    void reset();

    std::size_t m_limit;
    std::vector<char> m_record;
    std::uint32_t m_mark = 0;
    std::size_t m_markBytes = 0; ///< of the mark that have come
    std::size_t m_missing = 0;   ///< bytes of the fragment that have not come
    unsigned m_emptyFragments = 0;
    bool m_inRecord = false;
    bool m_delivered = false; ///< m_record went out with the last call
};

} // namespace nis
