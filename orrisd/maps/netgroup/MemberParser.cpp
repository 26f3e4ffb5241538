#include "maps/netgroup/MemberParser.h"

#include "common/Globals.h"

#include <algorithm>
#include <cctype>

namespace nis {

namespace {

const boost::shared_ptr<tessa::Logger>& syntaxLogger() {
    static const auto log = tessa::Logger::get(ORRISD_NETGROUP_SYNTAX_LOG_NAME);
    return log;
}

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

/// The parser of one member list.
class MemberParser {
public:
    MemberParser(std::string_view value, std::list<NetgroupEntry>& out, bool report,
                 const std::string& netgroupName)
        : m_p{value}, m_out(out), m_report(report), m_netgroup(netgroupName) {}

    void parse();

private:
    void skip(std::string_view characters);
    void parseGroup();
    void parseTriple();
    bool parseFields(NetgroupEntry& entry);

    void RemoveBackslashes(std::string& field, const char* what) const;
    void SpaceFollowsCheck(std::size_t start) const;
    void CloseParenCheck(std::size_t start);
    void ContainsCommaCheck(const std::string& domain, std::size_t start) const;
    void AnalyzeTripleParseFailure(std::size_t start);
    void reportMember(int level, const char* problem, std::size_t start) const;

    ParsePosition m_p;
    std::list<NetgroupEntry>& m_out;
    bool m_report;
    const std::string& m_netgroup;
};

void MemberParser::reportMember(int level, const char* problem, std::size_t start) const {
    if (m_report) {
        const std::string_view member = m_p.text.substr(start, m_p.at - start);
        KARST_LOG(syntaxLogger(), level, "%s '%.*s' in netgroup %s", problem,
                  static_cast<int>(member.size()), member.data(), m_netgroup.c_str());
    }
}

void MemberParser::skip(std::string_view characters) {
    while (m_p.nextIs(characters)) {
        ++m_p.at;
    }
}

void MemberParser::RemoveBackslashes(std::string& field, const char* what) const {
    if (field.find('\\') == std::string::npos) {
        return;
    }
    if (m_report) {
        KARST_LOG(syntaxLogger(), tessa::LOG_WARN,
                  "%s '%s' contains backslash in netgroup %s -- removing", what, field.c_str(),
                  m_netgroup.c_str());
    }
    std::erase(field, '\\');
}

void MemberParser::SpaceFollowsCheck(std::size_t start) const {
    if (!m_p.atEnd() && !m_p.nextIs(SPACES)) {
        reportMember(tessa::LOG_WARN, "Expected a space following", start);
    }
}

void MemberParser::CloseParenCheck(std::size_t start) {
    if (m_p.nextIs(")")) {
        ++m_p.at;
        SpaceFollowsCheck(start);
    } else {
        reportMember(tessa::LOG_WARN, "Missing close parenthesis in", start);
    }
}

void MemberParser::ContainsCommaCheck(const std::string& domain, std::size_t start) const {
    if (domain.find(',') != std::string::npos) {
        reportMember(tessa::LOG_FAILURE, "Too many commas in", start);
    }
}

/// Finds where to go on, and says what is wrong with the triple up to there. A triple that is
/// closed is skipped as a whole; one that is not ends at the next white space, so that the members
/// behind it are not lost.
void MemberParser::AnalyzeTripleParseFailure(std::size_t start) {
    const std::size_t parenthesis = m_p.text.find_first_of("()", m_p.at);
    if (parenthesis != std::string_view::npos && m_p.text[parenthesis] == ')') {
        m_p.at = parenthesis + 1;
    } else {
        while (!m_p.atEnd() && !isSpace(m_p.text[m_p.at]) && m_p.text[m_p.at] != '(') {
            ++m_p.at;
        }
    }
    const std::string_view triple = m_p.text.substr(start, m_p.at - start);
    const bool fewCommas = std::count(triple.begin(), triple.end(), ',') < 2;
    reportMember(tessa::LOG_FAILURE, fewCommas ? "Expected more commas in" : "Failed to parse",
                 start);
}

/// Host, user and domain of a triple whose opening parenthesis was read.
bool MemberParser::parseFields(NetgroupEntry& entry) {
    for (std::string* field : {&entry.host, &entry.user}) {
        if (!ParseIdentifier(m_p, IDENTIFIER_DELIMITERS, *field) || !m_p.nextIs(",")) {
            return false;
        }
        ++m_p.at;
        skip(SPACES);
        if (m_p.atEnd()) {
            return false;
        }
    }
    return ParseIdentifier(m_p, DOMAIN_DELIMITERS, entry.domain);
}

void MemberParser::parseTriple() {
    const std::size_t start = m_p.at;
    ++m_p.at;
    NetgroupEntry entry;
    entry.kind = NetgroupEntry::TRIPLE;
    if (!parseFields(entry)) {
        AnalyzeTripleParseFailure(start);
        return;
    }
    ContainsCommaCheck(entry.domain, start);
    RemoveBackslashes(entry.host, "hostname");
    RemoveBackslashes(entry.user, "user");
    RemoveBackslashes(entry.domain, "domain");
    m_out.push_back(std::move(entry));
    CloseParenCheck(start);
}

void MemberParser::parseGroup() {
    const std::size_t start = m_p.at;
    NetgroupEntry entry;
    if (!ParseIdentifier(m_p, GROUP_DELIMITERS, entry.group) || m_p.at == start) {
        if (m_report) {
            KARST_LOG(syntaxLogger(), tessa::LOG_FAILURE, "Failed to parse group in netgroup %s",
                      m_netgroup.c_str());
        }
        ++m_p.at; // a closing parenthesis that closes nothing
        return;
    }
    RemoveBackslashes(entry.group, "group");
    if (!entry.group.empty()) {
        m_out.push_back(std::move(entry));
    }
    SpaceFollowsCheck(start);
}

void MemberParser::parse() {
    while (true) {
        while (!m_p.atEnd() && isSpace(m_p.text[m_p.at])) {
            ++m_p.at;
        }
        if (m_p.atEnd()) {
            return;
        }
        if (m_p.nextIs("(")) {
            parseTriple();
        } else {
            parseGroup();
        }
    }
}

} // namespace

bool ParseIdentifier(ParsePosition& p, std::string_view delimiters, std::string& out) {
    if (p.atEnd()) {
        return false;
    }
    const std::size_t end = std::min(p.text.find_first_of(delimiters, p.at), p.text.size());
    out.assign(p.text.substr(p.at, end - p.at));
    p.at = end;
    return true;
}

void ParseNetgroupMembers(std::string_view value, std::list<NetgroupEntry>& out, bool report,
                          const std::string& netgroupName) {
    MemberParser(value, out, report, netgroupName).parse();
}

} // namespace nis
