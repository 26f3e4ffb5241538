#include "LdifReader.h"

#include "Base64.h"
#include "Quoted.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <cstring>

namespace quorad::ldif {

namespace {

constexpr std::size_t FIRST_BLOCK = 4096;
constexpr std::size_t BLOCK = 256 * 1024;
constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";
constexpr std::size_t QUOTED = 60; ///< characters of a line that a message repeats

std::string_view withoutBlanks(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string_view::npos ? std::string_view() : text.substr(begin);
}

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == ';' || c == '=' || c == '*' || c == '_';
}

} // namespace

void LdifRecord::clear() {
    dn.clear();
    line = 0;
    m_text.clear();
    m_fields.clear();
}

void LdifRecord::begin(std::string_view name) {
    Field field;
    field.name = m_text.size();
    field.nameLength = name.size();
    m_text += name;
    field.value = m_text.size();
    m_fields.push_back(field);
}

LdifReader::LdifReader(std::string name, Source source)
    : m_name(std::move(name)), m_source(std::move(source)) {}

void LdifReader::fail(std::size_t line, const std::string& what) const {
    TESSA_THROW(tessa::BadDataException, m_name + ":" + std::to_string(line) + ": " + what);
}

// Makes room behind the unread bytes and reads more. False when there is no more.
bool LdifReader::fillBuffer() {
    if (m_sourceEnded) {
        return false;
    }
    if (m_begin > 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    if (m_end > MAX_RECORD) {
        fail(m_nextNumber, "the line is longer than " + std::to_string(MAX_RECORD) + " bytes");
    }
    // Small texts are common, and large ones should not be read in small pieces for long.
    const std::size_t room = std::clamp(m_buffer.size(), FIRST_BLOCK, BLOCK);
    if (m_buffer.size() < m_end + room) {
        m_buffer.resize(std::max(m_end + room, m_buffer.size() * 2));
    }
    const std::size_t count = m_source(m_buffer.data() + m_end, m_buffer.size() - m_end);
    m_end += count;
    m_sourceEnded = count == 0;
    return !m_sourceEnded;
}

void LdifReader::startOfText() {
    while (m_end - m_begin < BYTE_ORDER_MARK.size() && fillBuffer()) {
    }
    const std::string_view text(m_buffer.data() + m_begin, m_end - m_begin);
    if (text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK) {
        m_begin += BYTE_ORDER_MARK.size();
    }
}

// The next line without its end; `continues` tells whether the line behind it belongs to it.
bool LdifReader::physicalLine(std::string_view& line, bool& continues) {
    std::size_t length = 0;
    for (;;) {
        const char* const begin = m_buffer.data() + m_begin;
        const std::size_t unread = m_end - m_begin;
        const void* const feed =
            unread > length ? std::memchr(begin + length, '\n', unread - length) : nullptr;
        if (feed != nullptr) {
            length = static_cast<std::size_t>(static_cast<const char*>(feed) - begin);
            break;
        }
        length = unread;
        if (!fillBuffer()) {
            break;
        }
    }
    // The byte behind the line feed decides whether the line goes on.
    while (m_end - m_begin < length + 2 && fillBuffer()) {
    }
    const std::size_t unread = m_end - m_begin;
    if (unread == 0) {
        return false;
    }
    line = {m_buffer.data() + m_begin, length};
    continues = unread > length + 1 && m_buffer[m_begin + length + 1] == ' ';
    m_begin += std::min(unread, length + 1);
    ++m_nextNumber;
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return true;
}

// Reads the next line with those that continue it into m_line.
bool LdifReader::logicalLine() {
    m_lineNumber = m_nextNumber;
    bool continues = false;
    if (m_lineNumber == 1) {
        startOfText();
    }
    if (!physicalLine(m_line, continues)) {
        return false;
    }
    if (!m_line.empty() && m_line.front() == ' ') {
        fail(m_lineNumber, "a line that continues none");
    }
    if (continues && !m_line.empty()) {
        m_unfolded.assign(m_line);
        while (continues) {
            std::string_view more;
            physicalLine(more, continues);
            m_unfolded += more.substr(1);
            if (m_unfolded.size() > MAX_RECORD) {
                fail(m_lineNumber,
                     "the line is longer than " + std::to_string(MAX_RECORD) + " bytes");
            }
        }
        m_line = m_unfolded;
    }
    return true;
}

// Steps to the first line of the next block that is neither empty nor a comment.
bool LdifReader::nextBlock() {
    while (logicalLine()) {
        if (!m_line.empty() && m_line.front() != '#') {
            return true;
        }
    }
    return false;
}

std::string_view LdifReader::attributeName() const {
    const std::size_t colon = m_line.find(':');
    if (colon == std::string_view::npos) {
        fail(m_lineNumber, "no colon in " + quoted(m_line, QUOTED));
    }
    const std::string_view name = m_line.substr(0, colon);
    if (name.empty() || !std::all_of(name.begin(), name.end(), isNameCharacter)) {
        fail(m_lineNumber, quoted(name, QUOTED) + " is no attribute name");
    }
    return name;
}

// Appends the value of the line, which begins with the name.
void LdifReader::readValue(std::string_view name, std::string& value) {
    std::string_view rest = m_line.substr(name.size() + 1);
    if (!rest.empty() && rest.front() == '<') {
        fail(m_lineNumber,
             "the value of " + quoted(name) + " is a URL; values must be in the file itself");
    }
    if (!rest.empty() && rest.front() == ':') {
        rest = tessa::trimWhiteSpace(rest.substr(1));
        if (!appendDecoded(rest, value)) {
            fail(m_lineNumber, "the value of " + quoted(name) + " is not Base64");
        }
        return;
    }
    rest = withoutBlanks(rest);
    if (rest.find('\0') != std::string_view::npos) {
        fail(m_lineNumber,
             "the value of " + quoted(name) + " holds a zero byte; such a value must be in Base64");
    }
    value += rest;
}

void LdifReader::readAttribute(LdifRecord& record, std::string_view name) {
    record.begin(name);
    record.fill([&](std::string& text) { readValue(name, text); });
    if (record.bytes() > MAX_RECORD) {
        fail(record.line, "the record is larger than " + std::to_string(MAX_RECORD) + " bytes");
    }
}

// Lines that may stand between the name and the attributes. True when the line was one.
bool LdifReader::acceptDirective(std::string_view name) {
    if (tessa::equalsIgnoreCase(name, "control")) {
        fail(m_lineNumber, "controls are not supported");
    }
    if (!tessa::equalsIgnoreCase(name, "changetype")) {
        return false;
    }
    std::string type;
    readValue(name, type);
    if (!tessa::equalsIgnoreCase(type, "add")) {
        fail(m_lineNumber, "change records of type " + quoted(type, QUOTED) +
                               " are not supported; the file must hold the objects themselves");
    }
    return true;
}

void LdifReader::readRecord(LdifRecord& record) {
    record.clear();
    record.line = m_lineNumber;
    readValue(m_line.substr(0, 2), record.dn);
    bool first = true;
    while (logicalLine() && !m_line.empty()) {
        if (m_line.front() == '#') {
            continue;
        }
        const std::string_view name = attributeName();
        if (tessa::equalsIgnoreCase(name, "dn")) {
            fail(m_lineNumber, "a second dn in one record; an empty line is missing before it");
        }
        if (first && acceptDirective(name)) {
            first = false;
            continue;
        }
        first = false;
        readAttribute(record, name);
    }
    if (record.size() == 0) {
        fail(record.line, "the record has no attributes");
    }
}

void LdifReader::readVersion() {
    std::string version;
    readValue(m_line.substr(0, m_line.find(':')), version);
    if (version != "1") {
        fail(m_lineNumber, "LDIF version " + quoted(version, QUOTED) + " is not supported, only 1");
    }
}

void LdifReader::skipBlock() {
    while (logicalLine() && !m_line.empty()) {
    }
}

// What ldapsearch says below the records of the search: a failure means that records are missing.
void LdifReader::skipSearchResult() {
    while (logicalLine() && !m_line.empty()) {
        if (m_line.front() == '#' || attributeName() != "result") {
            continue;
        }
        const std::string_view result = withoutBlanks(m_line.substr(m_line.find(':') + 1));
        if (result != "0" && result.substr(0, 2) != "0 ") {
            fail(m_lineNumber,
                 "the search that made this file ended with " + quoted(result, QUOTED));
        }
    }
}

bool LdifReader::next(LdifRecord& record) {
    while (nextBlock()) {
        const std::string_view name = attributeName();
        if (m_atStart && tessa::equalsIgnoreCase(name, "version")) {
            m_atStart = false;
            readVersion();
            continue;
        }
        m_atStart = false;
        if (tessa::equalsIgnoreCase(name, "dn")) {
            readRecord(record);
            return true;
        }
        if (name == "search") {
            skipSearchResult();
        } else if (name == "ref") {
            skipBlock();
        } else {
            fail(m_lineNumber, "a record begins with " + quoted(name, QUOTED) +
                                   "; its first line must be its dn");
        }
    }
    return false;
}

} // namespace quorad::ldif
