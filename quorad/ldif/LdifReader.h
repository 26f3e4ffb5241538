#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace quorad::ldif {

/// One record: a name and its attributes in the order of the file, an attribute with several values
/// once for each. Meant to be used again for the next record, so that its memory is kept.
class LdifRecord {
public:
    std::string dn;
    std::size_t line = 0; ///< of the "dn:" line

    std::size_t size() const { return m_fields.size(); }
    std::string_view name(std::size_t index) const {
        return {m_text.data() + m_fields[index].name, m_fields[index].nameLength};
    }
    std::string_view value(std::size_t index) const {
        return {m_text.data() + m_fields[index].value, m_fields[index].valueLength};
    }
    std::size_t bytes() const { return dn.size() + m_text.size(); }

    void clear();
    /// Adds an attribute without value.
    void begin(std::string_view name);
    /// Adds to the value of the last attribute: call `append`, which adds to the string it is
    /// given.
    template <typename Append> void fill(Append append) {
        append(m_text);
        m_fields.back().valueLength = m_text.size() - m_fields.back().value;
    }

private:
    struct Field {
        std::size_t name = 0; ///< offsets into m_text
        std::size_t nameLength = 0;
        std::size_t value = 0;
        std::size_t valueLength = 0;
    };
    std::string m_text;
    std::vector<Field> m_fields;
};

/// Reads the content records of an LDIF text (RFC 2849) one at a time, in the memory of one record.
///
/// Beyond the standard it takes what is found in practice: values in raw UTF-8, a byte order mark,
/// the result lines that ldapsearch writes below the records (they must tell of success), and
/// "changetype: add". Values from URLs and other change records are refused.
/// One thread at a time.
class LdifReader {
public:
    static constexpr std::size_t MAX_RECORD = std::size_t{64} << 20U;

    /// Delivers up to `size` next bytes of the text into `buffer`; 0 at the end. May throw.
    using Source = std::function<std::size_t(char* buffer, std::size_t size)>;

    /// @param name names the text in messages
    LdifReader(std::string name, Source source);

    /// @return false at the end of the text
    /// @throws tessa::BadDataException saying "NAME:LINE: what is wrong"
    bool next(LdifRecord& record);

    /// Raises the exception for a record whose contents are not acceptable.
    [[noreturn]] void fail(std::size_t line, const std::string& what) const;

private:
    bool fillBuffer();
    void startOfText();
    bool physicalLine(std::string_view& line, bool& continues);
    bool logicalLine();
    bool nextBlock();
    std::string_view attributeName() const;
    void readAttribute(LdifRecord& record, std::string_view name);
    void readValue(std::string_view name, std::string& value);
    void readRecord(LdifRecord& record);
    bool acceptDirective(std::string_view name);
    void readVersion();
    void skipSearchResult();
    void skipBlock();

    const std::string m_name;
    const Source m_source;
    std::string m_buffer;
    std::size_t m_begin = 0; ///< unread bytes of m_buffer
    std::size_t m_end = 0;
    bool m_sourceEnded = false;

    std::string_view m_line; ///< the logical line, valid until the next is read
    std::string m_unfolded;
    std::size_t m_lineNumber = 0; ///< of m_line
    std::size_t m_nextNumber = 1; ///< of the next physical line
    bool m_atStart = true;        ///< no record yet: the version line may come
};

} // namespace quorad::ldif
