#include "Filter.h"

#include <karst/Exceptions.h>
#include <karst/Int64.h>
#include <karst/Text.h>

#include <algorithm>
#include <vector>

namespace quorad {

struct Filter::Node {
    enum class Kind { AND, OR, NOT, PRESENT, EQUAL, SUBSTRING, GREATER, LESS };

    Kind kind = Kind::AND;
    std::string attribute; // lower-cased
    std::string value;
    std::vector<std::string> pieces; // of a substring: first and last may be empty
    std::vector<std::unique_ptr<const Node>> children;
};

namespace {

using Node = Filter::Node;
using Kind = Filter::Node::Kind;

constexpr std::string_view USN_CHANGED = "usnchanged";

bool isUsn(std::string_view attribute) {
    return attribute == USN_CHANGED || attribute == "usncreated";
}

bool isBinary(std::string_view attribute) {
    return attribute == "objectguid" || attribute == "objectsid";
}

bool asNumber(std::string_view text, std::int64_t& number) {
    try {
        number = tessa::Int64::fromString(text).value();
        return true;
    } catch (const tessa::BadDataException&) {
        return false;
    }
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char small = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
    return small >= 'a' && small <= 'f' ? small - 'a' + 10 : -1;
}

bool isAttributeCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == ';';
}

class Parser {
public:
    explicit Parser(std::string_view text) : m_text(text) {}

    std::unique_ptr<const Node> parse() {
        if (m_text.size() > Filter::MAX_LENGTH) {
            TESSA_THROW(tessa::BadDataException,
                        "a filter of " + std::to_string(m_text.size()) + " bytes is too long");
        }
        auto root = component(0);
        if (m_at != m_text.size()) {
            fail("something follows the end");
        }
        return root;
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        TESSA_THROW(tessa::BadDataException, "filter '" + std::string(m_text.substr(0, 200)) +
                                                 "', position " + std::to_string(m_at + 1) + ": " +
                                                 what);
    }

    char peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    void expect(char c) {
        if (m_at >= m_text.size() || m_text[m_at] != c) {
            fail(std::string("'") + c + "' expected");
        }
        ++m_at;
    }

    std::unique_ptr<const Node> component(unsigned depth) {
        if (depth >= Filter::MAX_DEPTH) {
            fail("nested too deeply");
        }
        expect('(');
        auto node = std::make_unique<Node>();
        switch (peek()) {
        case '&':
            node->kind = Kind::AND;
            children(*node, depth);
            break;
        case '|':
            node->kind = Kind::OR;
            children(*node, depth);
            break;
        case '!':
            node->kind = Kind::NOT;
            ++m_at;
            node->children.push_back(component(depth + 1));
            break;
        default:
            item(*node);
        }
        expect(')');
        return node;
    }

    void children(Node& node, unsigned depth) {
        ++m_at;
        while (peek() == '(') {
            node.children.push_back(component(depth + 1));
        }
    }

    void item(Node& node) {
        const std::size_t begin = m_at;
        while (m_at < m_text.size() && isAttributeCharacter(m_text[m_at])) {
            ++m_at;
        }
        node.attribute = tessa::lower(m_text.substr(begin, m_at - begin));
        if (node.attribute.empty()) {
            fail("attribute name expected");
        }
        node.kind = comparison();
        value(node);
        if (isUsn(node.attribute) && node.kind != Kind::PRESENT) {
            std::int64_t number = 0;
            if (node.kind == Kind::SUBSTRING || !asNumber(node.value, number)) {
                fail("'" + node.attribute + "' needs a number");
            }
        }
    }

    Kind comparison() {
        const char c = peek();
        if (c == '=') {
            ++m_at;
            return Kind::EQUAL;
        }
        if (c == ':') {
            fail("extensible matches are not supported");
        }
        if (c != '>' && c != '<' && c != '~') {
            fail("comparison expected");
        }
        ++m_at;
        expect('=');
        return c == '>' ? Kind::GREATER : c == '<' ? Kind::LESS : Kind::EQUAL;
    }

    char escaped() {
        const int high = m_at + 1 < m_text.size() ? hexValue(m_text[m_at + 1]) : -1;
        const int low = m_at + 2 < m_text.size() ? hexValue(m_text[m_at + 2]) : -1;
        if (high < 0 || low < 0) {
            fail("two hexadecimal digits must follow '\\'");
        }
        m_at += 3;
        return static_cast<char>(high * 16 + low);
    }

    void value(Node& node) {
        std::vector<std::string> pieces(1);
        while (m_at < m_text.size() && m_text[m_at] != ')') {
            const char c = m_text[m_at];
            if (c == '(' || c == '\0') {
                fail("this character must be escaped");
            }
            if (c == '\\') {
                pieces.back() += escaped();
                continue;
            }
            if (c != '*') {
                pieces.back() += c;
            } else if (node.kind != Kind::EQUAL) {
                fail("'*' must be escaped");
            } else {
                pieces.emplace_back();
            }
            ++m_at;
        }
        take(node, std::move(pieces));
    }

    static void take(Node& node, std::vector<std::string> pieces) {
        if (pieces.size() == 1) {
            node.value = std::move(pieces.front());
        } else if (pieces.size() == 2 && pieces[0].empty() && pieces[1].empty()) {
            node.kind = Kind::PRESENT;
        } else {
            node.kind = Kind::SUBSTRING;
            node.pieces = std::move(pieces);
        }
        if (!isBinary(node.attribute)) {
            node.value = tessa::lower(node.value);
            for (auto& piece : node.pieces) {
                piece = tessa::lower(piece);
            }
        }
    }

    std::string_view m_text;
    std::size_t m_at = 0;
};

// The pieces in their order, the first at the begin of the value and the last at its end.
bool matchesPieces(std::string_view value, const std::vector<std::string>& pieces) {
    const std::string& first = pieces.front();
    const std::string& last = pieces.back();
    if (value.size() < first.size() + last.size() || value.substr(0, first.size()) != first ||
        value.substr(value.size() - last.size()) != last) {
        return false;
    }
    std::string_view rest = value.substr(first.size());
    rest.remove_suffix(last.size());
    for (std::size_t i = 1; i + 1 < pieces.size(); ++i) {
        const std::size_t at = rest.find(pieces[i]);
        if (at == std::string_view::npos) {
            return false;
        }
        rest.remove_prefix(at + pieces[i].size());
    }
    return true;
}

bool matchesOrder(const Node& node, std::string_view value) {
    std::int64_t left = 0;
    std::int64_t right = 0;
    int order = 0;
    if (asNumber(value, left) && asNumber(node.value, right)) {
        order = left < right ? -1 : left > right ? 1 : 0;
    } else {
        order = value.compare(node.value);
    }
    return node.kind == Kind::GREATER ? order >= 0 : order <= 0;
}

bool matchesValue(const Node& node, std::string_view value) {
    if (isUsn(node.attribute) && node.kind == Kind::EQUAL) {
        std::int64_t left = 0;
        std::int64_t right = 0;
        return asNumber(value, left) && asNumber(node.value, right) && left == right;
    }
    std::string small;
    if (!isBinary(node.attribute)) {
        small = tessa::lower(value);
        value = small;
    }
    switch (node.kind) {
    case Kind::EQUAL:
        return value == node.value;
    case Kind::SUBSTRING:
        return matchesPieces(value, node.pieces);
    case Kind::GREATER:
    case Kind::LESS:
        return matchesOrder(node, value);
    default:
        return true;
    }
}

bool evaluate(const Node& node, const FilterSubject& subject) {
    const auto accepts = [&](const auto& child) { return evaluate(*child, subject); };
    switch (node.kind) {
    case Kind::AND:
        return std::all_of(node.children.begin(), node.children.end(), accepts);
    case Kind::OR:
        return std::any_of(node.children.begin(), node.children.end(), accepts);
    case Kind::NOT:
        return !evaluate(*node.children.front(), subject);
    default:
        return subject.anyValue(node.attribute,
                                [&](std::string_view value) { return matchesValue(node, value); });
    }
}

// Narrows the range by what the node demands of usnchanged. False when it demands more than that.
bool narrow(const Node& node, Filter::UsnRange& range) {
    if (node.kind == Kind::AND) {
        bool complete = true;
        for (const auto& child : node.children) {
            complete = narrow(*child, range) && complete;
        }
        return complete;
    }
    const bool bounds =
        node.kind == Kind::EQUAL || node.kind == Kind::GREATER || node.kind == Kind::LESS;
    if (!bounds || node.attribute != USN_CHANGED) {
        return false;
    }
    const std::int64_t bound = tessa::Int64::fromString(node.value).value();
    if (node.kind != Kind::LESS) {
        range.lower = std::max(range.lower, bound);
        range.hasLower = true;
    }
    if (node.kind != Kind::GREATER) {
        range.upper = std::min(range.upper, bound);
    }
    return true;
}

} // namespace

Filter::Filter(std::string_view text) : m_root(Parser(text).parse()) {
    m_range.complete = narrow(*m_root, m_range);
}

Filter::~Filter() = default;
Filter::Filter(Filter&&) noexcept = default;
Filter& Filter::operator=(Filter&&) noexcept = default;

bool Filter::matches(const FilterSubject& subject) const {
    return evaluate(*m_root, subject);
}

} // namespace quorad
