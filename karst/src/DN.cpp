#include "karst/DN.h"

#include "karst/Text.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

namespace tessa {

namespace {

constexpr std::string_view SPECIALS = "\"+,;<>\\";

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

int hexValue(char c) {
    if (isDigit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

char lowerLetter(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// A descriptor ("CN", "msDS-x") or a numeric object identifier.
bool isAttributeType(std::string_view type) {
    if (type.empty()) {
        return false;
    }
    if (isLetter(type.front())) {
        return std::all_of(type.begin(), type.end(),
                           [](char c) { return isLetter(c) || isDigit(c) || c == '-'; });
    }
    return isDigit(type.front()) && isDigit(type.back()) &&
           type.find("..") == std::string_view::npos &&
           std::all_of(type.begin(), type.end(), [](char c) { return isDigit(c) || c == '.'; });
}

bool isHexString(std::string_view value) {
    const std::string_view digits = value.substr(1);
    return !digits.empty() && digits.size() % 2 == 0 &&
           std::all_of(digits.begin(), digits.end(), [](char c) { return hexValue(c) >= 0; });
}

// Length of the escape sequence that begins at a backslash; 0 when it is none.
std::size_t escapeLength(std::string_view text, std::size_t at) {
    if (at + 1 >= text.size()) {
        return 0;
    }
    const char next = text[at + 1];
    if (SPECIALS.find(next) != std::string_view::npos || next == ' ' || next == '#' ||
        next == '=') {
        return 2;
    }
    const bool pair = at + 2 < text.size() && hexValue(next) >= 0 && hexValue(text[at + 2]) >= 0;
    return pair ? 3 : 0;
}

std::string unescape(std::string_view raw) {
    std::string value;
    value.reserve(raw.size());
    for (std::size_t at = 0; at < raw.size();) {
        if (raw[at] != '\\') {
            value += raw[at++];
            continue;
        }
        const std::size_t length = escapeLength(raw, at);
        value += length == 3 ? static_cast<char>(hexValue(raw[at + 1]) * 16 + hexValue(raw[at + 2]))
                             : raw[at + 1];
        at += length;
    }
    return value;
}

// Steps through the "type=value" pieces of a name without copying.
class Scanner {
public:
    explicit Scanner(std::string_view text) : m_text(text) {}

    struct Piece {
        std::string_view type;
        std::string_view value; // still escaped, without the blanks around it
        bool escaped = false;
        bool joined = false; // "+" follows: the next piece belongs to the same component
    };

    // False at the end and on a syntax error; failed() tells which.
    bool next(Piece& piece) {
        if (m_failed || (m_started && m_at >= m_text.size() && !m_expectPiece)) {
            return false;
        }
        m_started = true;
        m_failed = !readType(piece) || !readValue(piece);
        return !m_failed;
    }
    bool failed() const { return m_failed; }
    // Where the text after the last piece's separator begins.
    std::size_t position() const { return m_at; }

private:
    void skipBlanks() {
        while (m_at < m_text.size() && m_text[m_at] == ' ') {
            ++m_at;
        }
    }

    bool readType(Piece& piece) {
        skipBlanks();
        const std::size_t equals = m_text.find('=', m_at);
        if (equals == std::string_view::npos) {
            return false;
        }
        piece.type = m_text.substr(m_at, equals - m_at);
        while (!piece.type.empty() && piece.type.back() == ' ') {
            piece.type.remove_suffix(1);
        }
        m_at = equals + 1;
        return isAttributeType(piece.type);
    }

    bool readValue(Piece& piece) {
        skipBlanks();
        const std::size_t begin = m_at;
        std::size_t end = begin; // behind the last character that is no trailing blank
        piece.escaped = false;
        while (m_at < m_text.size() && m_text[m_at] != ',' && m_text[m_at] != '+') {
            std::size_t length = 1;
            const char c = m_text[m_at];
            if (c == '\\') {
                length = escapeLength(m_text, m_at);
                if (length == 0) {
                    return false;
                }
                piece.escaped = true;
            } else if (c == '"' || c == ';' || c == '<' || c == '>' || c == '\0') {
                return false;
            }
            m_at += length;
            if (c != ' ') {
                end = m_at;
            }
        }
        piece.value = m_text.substr(begin, end - begin);
        m_expectPiece = m_at < m_text.size();
        piece.joined = m_expectPiece && m_text[m_at] == '+';
        m_at += m_expectPiece ? 1 : 0;
        return piece.value.empty() || piece.value.front() != '#' || isHexString(piece.value);
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    bool m_started = false;
    bool m_expectPiece = false; // a separator was read: a name cannot end here
    bool m_failed = false;
};

void appendEscaped(std::string& text, std::string_view value) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (std::size_t at = 0; at < value.size(); ++at) {
        const char c = value[at];
        const auto byte = static_cast<unsigned char>(c);
        const bool outer =
            (at == 0 && (c == ' ' || c == '#')) || (at + 1 == value.size() && c == ' ');
        if (byte < 0x20 || byte == 0x7F) {
            text += '\\';
            text += DIGITS[byte >> 4U];
            text += DIGITS[byte & 0x0FU];
            continue;
        }
        if (outer || SPECIALS.find(c) != std::string_view::npos) {
            text += '\\';
        }
        text += c;
    }
}

void appendNormalized(std::string& text, const Scanner::Piece& piece) {
    std::transform(piece.type.begin(), piece.type.end(), std::back_inserter(text), lowerLetter);
    text += '=';
    const std::size_t begin = text.size();
    if (piece.escaped) {
        appendEscaped(text, unescape(piece.value));
    } else if (!piece.value.empty() && piece.value.front() == '#') {
        text += piece.value;
    } else {
        appendEscaped(text, piece.value);
    }
    std::transform(text.begin() + static_cast<std::ptrdiff_t>(begin), text.end(),
                   text.begin() + static_cast<std::ptrdiff_t>(begin), lowerLetter);
}

} // namespace

bool DN::isDN(std::string_view text) {
    Scanner scanner(text);
    Scanner::Piece piece;
    while (scanner.next(piece)) {
    }
    return !scanner.failed();
}

std::string DN::domainFromDN(std::string_view dn) {
    std::string domain;
    Scanner scanner(dn);
    Scanner::Piece piece;
    while (scanner.next(piece)) {
        if (!equalsIgnoreCase(piece.type, "DC")) {
            continue;
        }
        if (!domain.empty()) {
            domain += '.';
        }
        domain += lower(unescape(piece.value));
    }
    return scanner.failed() ? std::string() : domain;
}

std::string DN::parent(std::string_view dn) {
    Scanner scanner(dn);
    Scanner::Piece piece;
    do {
        if (!scanner.next(piece)) {
            return {};
        }
    } while (piece.joined);
    return std::string(trimWhiteSpace(dn.substr(scanner.position())));
}

std::string DN::firstValue(std::string_view dn) {
    Scanner scanner(dn);
    Scanner::Piece piece;
    return scanner.next(piece) ? unescape(piece.value) : std::string();
}

std::string DN::normalize(std::string_view dn) {
    std::string text;
    text.reserve(dn.size());
    std::vector<std::string> joined; // pieces of a component that has several
    Scanner scanner(dn);
    Scanner::Piece piece;
    while (scanner.next(piece)) {
        if (!text.empty() && joined.empty()) {
            text += ',';
        }
        if (!piece.joined && joined.empty()) {
            appendNormalized(text, piece);
            continue;
        }
        appendNormalized(joined.emplace_back(), piece);
        if (!piece.joined) {
            std::sort(joined.begin(), joined.end());
            for (std::size_t at = 0; at < joined.size(); ++at) {
                text += (at == 0 ? "" : "+") + joined[at];
            }
            joined.clear();
        }
    }
    // What is no name can only equal the same text.
    return scanner.failed() ? lower(trimWhiteSpace(dn)) : text;
}

std::string DN::escape(std::string_view value) {
    std::string text;
    text.reserve(value.size());
    appendEscaped(text, value);
    return text;
}

std::string LDAPBinding::createChild(std::string_view parent, std::string_view name) {
    std::string child = "CN=" + DN::escape(name);
    if (!parent.empty()) {
        child += ',';
        child += parent;
    }
    return child;
}

} // namespace tessa
