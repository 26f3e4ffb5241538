#include "Format.h"

#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <unordered_set>
#include <utility>

#include <arpa/inet.h>

namespace quorad::admin {

namespace {

constexpr std::string_view BLANKS = " \t\r\n";

struct NamedFormat {
    std::string_view name;
    Format format;
};
constexpr std::array<NamedFormat, 10> FORMATS{{{"keyed", Format::KEYED},
                                               {"tabbed", Format::TABBED},
                                               {"auto", Format::AUTO},
                                               {"hosts", Format::HOSTS},
                                               {"services", Format::SERVICES},
                                               {"numbered", Format::NUMBERED},
                                               {"ethers", Format::ETHERS},
                                               {"timezone", Format::TIMEZONE},
                                               {"passwd", Format::PASSWD},
                                               {"aliases", Format::ALIASES}}};
constexpr std::array<NamedFormat, 15> MAPS{{{"hosts", Format::HOSTS},
                                            {"ipnodes", Format::HOSTS},
                                            {"services", Format::SERVICES},
                                            {"protocols", Format::NUMBERED},
                                            {"rpc", Format::NUMBERED},
                                            {"networks", Format::NUMBERED},
                                            {"ethers", Format::ETHERS},
                                            {"timezone", Format::TIMEZONE},
                                            {"passwd", Format::PASSWD},
                                            {"shadow", Format::PASSWD},
                                            {"group", Format::PASSWD},
                                            {"gshadow", Format::PASSWD},
                                            {"passwd.adjunct", Format::PASSWD},
                                            {"group.adjunct", Format::PASSWD},
                                            {"aliases", Format::ALIASES}}};

bool isAddress(std::string_view text) {
    const std::string copy(text);
    std::array<unsigned char, 16> buffer{};
    return ::inet_pton(AF_INET, copy.c_str(), buffer.data()) == 1 ||
           ::inet_pton(AF_INET6, copy.c_str(), buffer.data()) == 1;
}

bool isNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789.") == std::string_view::npos &&
           text.front() != '.';
}

bool isEthernet(std::string_view text) {
    return std::count(text.begin(), text.end(), ':') == 5 &&
           text.find_first_not_of("0123456789abcdefABCDEF:") == std::string_view::npos;
}

// Protocol of "22/tcp"; empty when the text is nothing of the kind.
std::string_view protocolOf(std::string_view text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos || slash == 0 ||
        text.substr(0, slash).find_first_not_of("0123456789") != std::string_view::npos) {
        return {};
    }
    return text.substr(slash + 1);
}

using Fields = std::vector<std::string_view>;

// The key under which an administrator finds the record; none when the value has another form.
std::optional<std::string> keyOf(Format format, const Fields& fields) {
    if (fields.size() < 2) {
        return std::nullopt;
    }
    switch (format) {
    case Format::HOSTS:
        return isAddress(fields[0]) ? std::optional(std::string(fields[1])) : std::nullopt;
    case Format::SERVICES: {
        const std::string_view protocol = protocolOf(fields[1]);
        return protocol.empty()
                   ? std::nullopt
                   : std::optional(std::string(fields[0]) + "/" + std::string(protocol));
    }
    case Format::NUMBERED:
        return isNumber(fields[1]) ? std::optional(std::string(fields[0])) : std::nullopt;
    case Format::ETHERS:
        return isEthernet(fields[0]) ? std::optional(std::string(fields[1])) : std::nullopt;
    case Format::TIMEZONE:
        return std::string(fields[1]);
    default:
        return std::nullopt;
    }
}

// Whether clients find the record under the key.
bool leadsTo(Format format, std::string_view key, const Fields& fields) {
    const auto first = fields.begin() + (format == Format::TIMEZONE ? 1 : 0);
    if (std::find(first, fields.end(), key) != fields.end()) {
        return true;
    }
    if (format != Format::SERVICES) {
        return false;
    }
    const std::size_t slash = key.find('/');
    return slash != std::string_view::npos && protocolOf(fields[1]) == key.substr(slash + 1) &&
           std::find(fields.begin(), fields.end(), key.substr(0, slash)) != fields.end();
}

bool isBlank(char c) {
    return BLANKS.find(c) != std::string_view::npos;
}

// Whether the text can be what the automounter mounts: options, places with a host or without, maps
// of its own ("-hosts", "file:name"). What else stands there is the rest of a key with a blank.
bool isMount(std::string_view value) {
    const std::string_view word = value.substr(0, value.find_first_of(BLANKS));
    return !word.empty() && (std::string_view("-/\"'$(&").find(word.front()) != std::string::npos ||
                             word.find(':') != std::string_view::npos);
}

// First word and what follows it.
std::pair<std::string_view, std::string_view> firstWord(std::string_view line) {
    const std::size_t end = std::min(line.find_first_of(BLANKS), line.size());
    return {line.substr(0, end), tessa::trimWhiteSpace(line.substr(end))};
}

bool isDumpLine(Format format, std::string_view line) {
    const auto [key, rest] = firstWord(line);
    const Fields fields = tessa::split(rest, BLANKS);
    return keyOf(format, fields).has_value() && leadsTo(format, key, fields);
}

std::string_view withoutComment(std::string_view line) {
    return tessa::trimWhiteSpace(line.substr(0, line.find('#')));
}

/// One pass over a file.
class Reader {
public:
    explicit Reader(Format format) : m_format(format) {}

    ParsedFile read(std::string_view text) {
        if (m_format == Format::TABBED) {
            readTabbed(text);
            return std::move(m_file);
        }
        std::size_t number = 0;
        while (!text.empty()) {
            const std::size_t first = number + 1;
            std::string line;
            bool continued = true;
            while (continued && !text.empty()) {
                continued = takeLine(text, line);
                ++number;
            }
            take(line, first);
        }
        return std::move(m_file);
    }

private:
    void readTabbed(std::string_view text) {
        for (std::size_t number = 1; !text.empty(); ++number) {
            const std::size_t end = std::min(text.find('\n'), text.size());
            const std::string_view line = text.substr(0, end);
            text.remove_prefix(std::min(end + 1, text.size()));
            const std::size_t tab = line.find('\t');
            if (line.empty()) {
                continue;
            }
            if (tab == std::string_view::npos) {
                problem(number, "'" + excerpt(line) + "' has no tab between key and value");
            } else if (tab == 0) {
                problem(number, "'" + excerpt(line) + "' has an empty key");
            } else {
                add(std::string(line.substr(0, tab)), std::string(line.substr(tab + 1)), number);
            }
        }
    }

    // Appends the next line of the text; true when it is to be continued.
    static bool takeLine(std::string_view& text, std::string& line) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view piece = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!piece.empty() && piece.back() == '\r') {
            piece.remove_suffix(1);
        }
        const bool continued = !piece.empty() && piece.back() == '\\';
        if (continued) {
            piece.remove_suffix(1);
        }
        line += piece;
        return continued;
    }

    void take(std::string_view whole, std::size_t number) {
        if (m_format == Format::ALIASES && !whole.empty() &&
            BLANKS.find(whole.front()) != std::string_view::npos &&
            !tessa::trimWhiteSpace(whole).empty()) {
            continueAlias(tessa::trimWhiteSpace(whole));
            return;
        }
        const std::string_view line = tessa::trimWhiteSpace(whole);
        if (line.empty() || line.front() == '#') {
            return;
        }
        if (m_format == Format::KEYED || m_format == Format::AUTO) {
            takeKeyed(whole, number);
        } else if (foundByValue(m_format)) {
            takeFamily(line, number);
        } else if (m_format == Format::PASSWD) {
            takePasswd(line, number);
        } else {
            takeAlias(line, number);
        }
    }

    void takeKeyed(std::string_view whole, std::size_t number) {
        const auto [key, value] = firstWord(tessa::trimWhiteSpace(whole));
        if (isBlank(whole.front())) {
            problem(number, "'" + excerpt(whole) +
                                "' begins with a blank, so that its key is empty or cannot be told "
                                "from its value; --format tabbed takes such keys");
        } else if (m_format == Format::AUTO && !isMount(value)) {
            problem(number, "'" + excerpt(whole) + "' has not the form " + form() +
                                ": has its key a blank? --format tabbed takes such keys, --format "
                                "keyed any value");
        } else {
            add(std::string(key), std::string(value), number);
        }
    }

    void takeFamily(std::string_view line, std::size_t number) {
        if (!m_decided) {
            m_file.dump = isDumpLine(m_format, line);
            m_decided = true;
        }
        if (m_file.dump && !isDumpLine(m_format, line)) {
            problem(number, "'" + excerpt(line) +
                                "' is no key followed by a record that it leads "
                                "to");
            return;
        }
        const std::string_view value = m_file.dump ? firstWord(line).second : withoutComment(line);
        const auto key = keyOf(m_format, tessa::split(value, BLANKS));
        if (!key) {
            problem(number, "'" + excerpt(line) + "' has not the form " + form());
            return;
        }
        add(*key, std::string(value), number);
    }

    // A dump has the key once more in front of the line: "ines ines:x:1001:...".
    void takePasswd(std::string_view line, std::size_t number) {
        const auto [word, rest] = firstWord(line);
        const std::size_t colon = rest.find(':');
        if (!word.empty() && word.find(':') == std::string_view::npos &&
            colon != std::string_view::npos) {
            m_file.dump = true;
            line = rest;
        }
        const std::size_t end = line.find(':');
        if (end == std::string_view::npos || end == 0) {
            problem(number, "'" + excerpt(line) + "' has not the form key:...");
            return;
        }
        add(std::string(line.substr(0, end)), std::string(line), number);
    }

    // A dump of the map has no colon after the name.
    void takeAlias(std::string_view line, std::size_t number) {
        const auto [word, rest] = firstWord(line);
        const std::size_t colon = line.find(':');
        if (!word.empty() && word.find(':') == std::string_view::npos && rest.substr(0, 1) != ":") {
            m_file.dump = true;
            add(std::string(word), std::string(word) + ": " + std::string(rest), number);
            return;
        }
        const std::string name(tessa::trimWhiteSpace(line.substr(0, colon)));
        const std::string_view list = tessa::trimWhiteSpace(line.substr(colon + 1));
        if (name.empty()) {
            problem(number, "'" + excerpt(line) + "' has not the form name: address...");
            return;
        }
        add(name, name + ": " + std::string(list), number);
    }

    void continueAlias(std::string_view more) {
        if (!m_file.records.empty()) {
            m_file.records.back().value += " " + std::string(more);
        }
    }

    void add(std::string key, std::string value, std::size_t number) {
        const std::string identity =
            foundByValue(m_format) ? std::string("\n") + value : key + "\n" + value;
        if (!m_seen.insert(identity).second) {
            ++m_file.repeated;
            return;
        }
        const auto [place, fresh] = m_lines.emplace(key, number);
        if (!fresh && !foundByValue(m_format)) {
            problem(number, "key '" + excerpt(key) + "' stands in line " +
                                std::to_string(place->second) + " with another value");
            return;
        }
        m_file.records.push_back({std::move(key), std::move(value), number});
    }

    void problem(std::size_t number, std::string text) {
        m_file.problems.push_back({number, std::move(text)});
    }

    static std::string excerpt(std::string_view text) {
        constexpr std::size_t MOST = 60;
        return tessa::printable(text.substr(0, MOST)) + (text.size() > MOST ? "..." : "");
    }

    std::string form() const {
        switch (m_format) {
        case Format::HOSTS:
            return "address name [alias...]";
        case Format::SERVICES:
            return "name port/protocol [alias...]";
        case Format::ETHERS:
            return "ethernet-address name";
        case Format::TIMEZONE:
            return "time-zone name...";
        case Format::AUTO:
            return "key [-options] place...";
        default:
            return "name number [alias...]";
        }
    }

    const Format m_format;
    ParsedFile m_file;
    bool m_decided = false;
    std::map<std::string, std::size_t> m_lines; ///< key -> where it stands first
    std::unordered_set<std::string> m_seen;
};

} // namespace

Format defaultFormat(std::string_view map) {
    const std::string name = tessa::lower(map);
    const auto found = std::find_if(MAPS.begin(), MAPS.end(),
                                    [&](const NamedFormat& one) { return one.name == name; });
    if (found != MAPS.end()) {
        return found->format;
    }
    // Values of the master map are names of others.
    const bool isAuto = name.starts_with("auto.") || name.starts_with("auto_");
    return isAuto && name.substr(5) != "master" ? Format::AUTO : Format::KEYED;
}

bool formatFromName(std::string_view name, Format& format) {
    const auto found = std::find_if(FORMATS.begin(), FORMATS.end(), [&](const NamedFormat& one) {
        return tessa::equalsIgnoreCase(one.name, name);
    });
    if (found == FORMATS.end()) {
        return false;
    }
    format = found->format;
    return true;
}

std::string formatNames() {
    std::string names;
    for (const NamedFormat& one : FORMATS) {
        names += (names.empty() ? "" : ", ") + std::string(one.name);
    }
    return names;
}

bool foundByValue(Format format) {
    return format == Format::HOSTS || format == Format::SERVICES || format == Format::NUMBERED ||
           format == Format::ETHERS || format == Format::TIMEZONE;
}

ParsedFile parseFile(std::string_view text, Format format) {
    return Reader(format).read(text);
}

std::string makeLine(std::string_view key, std::string_view value, Format format) {
    return std::string(key) + (format == Format::TABBED ? "\t" : " ") + std::string(value);
}

bool readsBack(std::string_view key, std::string_view value, Format format) {
    const ParsedFile file = parseFile(makeLine(key, value, format) + "\n", format);
    return file.problems.empty() && file.records.size() == 1 && file.records.front().key == key &&
           file.records.front().value == value;
}

} // namespace quorad::admin
