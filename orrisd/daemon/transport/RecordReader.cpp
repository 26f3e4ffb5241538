#include "daemon/transport/RecordReader.h"

#include <algorithm>

namespace nis {

namespace {

constexpr std::uint32_t LAST_FRAGMENT = 0x80000000U;
/// A buffer up to this size is kept between records.
constexpr std::size_t KEPT_CAPACITY = 1024;

std::uint32_t markAt(const char* bytes) {
    std::uint32_t mark = 0;
    for (int i = 0; i < 4; ++i) {
        mark = mark << 8 | static_cast<unsigned char>(bytes[i]);
    }
    return mark;
}

} // namespace

void RecordReader::reset() {
    if (m_record.capacity() > KEPT_CAPACITY) {
        std::vector<char>().swap(m_record);
    } else {
        m_record.clear();
    }
    m_mark = 0;
    m_markBytes = 0;
    m_missing = 0;
    m_emptyFragments = 0;
    m_inRecord = false;
    m_delivered = false;
}

/// The usual case: the input holds all of a record in one fragment, which needs no copy.
bool RecordReader::wholeRecord(std::span<char>& input, std::span<char>& record) const {
    if (m_inRecord || input.size() < MARK_SIZE) {
        return false;
    }
    const std::uint32_t mark = markAt(input.data());
    const std::size_t length = mark & ~LAST_FRAGMENT;
    if ((mark & LAST_FRAGMENT) == 0 || length > m_limit || length > input.size() - MARK_SIZE) {
        return false;
    }
    record = input.subspan(MARK_SIZE, length);
    input = input.subspan(MARK_SIZE + length);
    return true;
}

/// @return whether the mark is complete
bool RecordReader::takeMark(std::span<char>& input) {
    while (m_markBytes < MARK_SIZE && !input.empty()) {
        m_mark = m_mark << 8 | static_cast<unsigned char>(input.front());
        ++m_markBytes;
        input = input.subspan(1);
    }
    return m_markBytes == MARK_SIZE;
}

bool RecordReader::markIsBogus() {
    const std::size_t length = m_mark & ~LAST_FRAGMENT;
    if (length > m_limit - m_record.size()) {
        return true;
    }
    if (length == 0 && ++m_emptyFragments > EMPTY_FRAGMENTS_MAX) {
        return true;
    }
    m_missing = length;
    return false;
}

void RecordReader::takeBody(std::span<char>& input) {
    const std::size_t count = std::min(m_missing, input.size());
    m_record.insert(m_record.end(), input.begin(),
                    input.begin() + static_cast<std::ptrdiff_t>(count));
    input = input.subspan(count);
    m_missing -= count;
}

RecordReader::Status RecordReader::feed(std::span<char>& input, std::span<char>& record) {
    if (m_delivered) {
        reset();
    }
    if (wholeRecord(input, record)) {
        return Status::Complete;
    }
    while (!input.empty()) {
        m_inRecord = true;
        if (m_markBytes < MARK_SIZE) {
            if (!takeMark(input)) {
                break;
            }
            if (markIsBogus()) {
                return Status::Bogus;
            }
        }
        takeBody(input);
        if (m_missing > 0) {
            break;
        }
        if ((m_mark & LAST_FRAGMENT) != 0) {
            record = m_record;
            m_inRecord = false;
            m_delivered = true;
            return Status::Complete;
        }
        m_mark = 0;
        m_markBytes = 0;
    }
    return Status::NeedMore;
}

} // namespace nis
