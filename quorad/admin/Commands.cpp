#include "Commands.h"

#include "Backend.h"
#include "JoinCheck.h"
#include "Progress.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>

#include <unistd.h>

namespace quorad::admin {

namespace {

void say(const std::string& text) {
    std::cerr << text << '\n';
}

std::string plural(std::size_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// "3, changed 1, removed 0, 7 unchanged"
std::string counts(const Plan& plan, const std::string& changed, const std::string& removed,
                   const std::string& last) {
    return std::to_string(plan.additions.size()) + ", " + changed +
           std::to_string(plan.changes.size()) + ", " + removed +
           std::to_string(plan.removals.size()) + last + std::to_string(plan.unchanged) +
           " unchanged";
}

/// The whole of a file, or of standard input ("-"). A file that breaks off is an error: what is
/// missing from its end would be taken for entries to remove.
std::string readAll(const std::string& path) {
    std::ifstream file;
    if (path != "-") {
        file.open(path, std::ios::binary);
    }
    std::istream& in = path == "-" ? std::cin : file;
    std::string text;
    std::array<char, 65536> block{};
    while (in.read(block.data(), block.size()) || in.gcount() > 0) {
        text.append(block.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (!in.eof()) {
        TESSA_THROW(tessa::IOException,
                    (path == "-" ? "standard input" : path) + ": " + tessa::errorText(errno));
    }
    return text;
}

bool madeFromAccounts(const std::string& map) {
    constexpr std::array<std::string_view, 6> NAMES{"passwd", "passwd.byname", "passwd.byuid",
                                                    "group",  "group.byname",  "group.bygid"};
    return std::find(NAMES.begin(), NAMES.end(), tessa::lower(map)) != NAMES.end();
}

} // namespace

ExitStatus Commands::run() {
    struct Row {
        const char* words;
        ExitStatus (Commands::*command)();
    };
    constexpr std::array<Row, 7> ROWS{{{"join-check", &Commands::joinCheck},
                                       {"zone create", &Commands::createZone},
                                       {"map list", &Commands::listMaps},
                                       {"map create", &Commands::createMap},
                                       {"map delete", &Commands::deleteMap},
                                       {"import", &Commands::importMap},
                                       {"export", &Commands::exportMap}}};
    const auto& words = m_options.words;
    if (words.empty()) {
        throw UsageError("a command is needed");
    }
    const std::string one = words[0];
    const std::string two = words.size() > 1 ? one + " " + words[1] : one;
    for (const Row& row : ROWS) {
        if (one == row.words || two == row.words) {
            if (!m_configuration.load(m_options.configuration)) {
                TESSA_THROW(tessa::IOException,
                            "the configuration '" + m_options.configuration + "' cannot be read");
            }
            return (this->*row.command)();
        }
    }
    throw UsageError("unknown command '" + two + "'");
}

void Commands::requireWords(std::size_t count) const {
    if (m_options.words.size() < count) {
        throw UsageError("'" + m_options.words[0] + "': arguments are missing");
    }
    if (m_options.words.size() > count) {
        throw UsageError("'" + m_options.words[count] + "' is too much");
    }
}

MapStore& Commands::store(const std::string& zone) {
    std::string used = zone.empty() ? m_options.zone : zone;
    used = used.empty() ? m_configuration.get(PROP_ZONE) : used;
    if (used.empty()) {
        throw UsageError("no zone: set quorad.zone or give --zone");
    }
    if (!tessa::DN::isDN(used) || tessa::DN::domainFromDN(used).empty()) {
        TESSA_THROW(tessa::BadDataException,
                    "'" + used + "' is not the distinguished name of a zone in a domain");
    }
    tessa::Properties configuration;
    for (const auto& [key, value] : m_configuration.withPrefix("")) {
        configuration.set(key, value);
    }
    configuration.set(PROP_ZONE, used);
    m_login = logIn(settingsOf(configuration, m_options.login), m_options.login);
    m_store = std::make_unique<MapStore>(*m_login.connection, used);
    say("As " + m_login.who + " at " + m_login.connection->server() + ", zone " + used);
    return *m_store;
}

bool Commands::confirm(const std::string& question) const {
    if (m_options.yes) {
        return true;
    }
    if (::isatty(STDIN_FILENO) != 1) {
        say(question + " Give --yes to agree.");
        return false;
    }
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    answer = tessa::lower(tessa::trimWhiteSpace(answer));
    return answer == "y" || answer == "yes";
}

ExitStatus Commands::joinCheck() {
    requireWords(1);
    if (!m_options.zone.empty()) {
        m_configuration.set(PROP_ZONE, m_options.zone);
    }
    const std::vector<Finding> findings = JoinCheck(m_configuration, m_options.login.server).run();
    std::cout << render(findings);
    return worst(findings) == Verdict::FAILED ? ExitStatus::FAILURE : ExitStatus::SUCCESS;
}

ExitStatus Commands::createZone() {
    requireWords(3);
    const auto made = store(m_options.words[2]).createZone(m_options.nisdomain);
    for (const std::string& dn : made) {
        std::cout << dn << '\n';
    }
    if (made.empty()) {
        say("The zone is there already");
    }
    return ExitStatus::SUCCESS;
}

ExitStatus Commands::listMaps() {
    requireWords(2);
    for (const MapStore::MapInfo& map : store().list()) {
        std::cout << map.name << ' ' << map.entries << '\n';
    }
    return ExitStatus::SUCCESS;
}

ExitStatus Commands::createMap() {
    requireWords(3);
    const std::string& map = m_options.words[2];
    MapStore& maps = store();
    if (maps.mapExists(map)) {
        say("The map '" + map + "' is there already");
        return ExitStatus::SUCCESS;
    }
    maps.createMap(map);
    say("Map '" + map + "' made");
    return ExitStatus::SUCCESS;
}

ExitStatus Commands::deleteMap() {
    requireWords(3);
    const std::string& map = m_options.words[2];
    MapStore& maps = store();
    if (!maps.mapExists(map)) {
        TESSA_THROW(tessa::NotFoundException, "there is no map '" + map + "' in " + maps.zone());
    }
    const std::vector<Entry> entries = maps.entries(map);
    const std::size_t count = entries.size();
    if (m_options.dryRun) {
        say("The map '" + map + "' with " + plural(count, "entry", "entries") +
            " would be removed");
        return ExitStatus::SUCCESS;
    }
    if (!confirm("Remove the map '" + map + "' with " + plural(count, "entry", "entries") + "?")) {
        say("Nothing was removed");
        return ExitStatus::FAILURE;
    }
    {
        Progress progress("Removing " + map, count);
        maps.deleteMap(map, entries, [&] { progress.step(); });
    }
    say("Map '" + map + "' removed");
    return ExitStatus::SUCCESS;
}

bool Commands::readImport(const std::string& map, Format format, std::vector<Record>& records) {
    const std::string& path = m_options.words[2];
    ParsedFile file = parseFile(readAll(path), format);
    const std::vector<Problem> unstorable = refuseUnstorable(file.records);
    file.problems.insert(file.problems.end(), unstorable.begin(), unstorable.end());
    std::stable_sort(file.problems.begin(), file.problems.end(),
                     [](const Problem& a, const Problem& b) { return a.line < b.line; });
    for (const Problem& problem : file.problems) {
        say(path + ":" + std::to_string(problem.line) + ": " + problem.text);
    }
    if (file.repeated > 0) {
        say(plural(file.repeated, "line says", "lines say") + " again what an earlier one says");
    }
    if (madeFromAccounts(map)) {
        say("Warning: passwd and group maps are made of users and groups; a map of this name is "
            "not served");
    }
    records = std::move(file.records);
    if (file.problems.empty()) {
        return true;
    }
    const std::string count = plural(file.problems.size(), "line", "lines");
    if (m_options.skipBad) {
        say(count + " left out, see above");
        return true;
    }
    say(count + " cannot be taken over, see above. Nothing was changed; mend them (a long netgroup "
                "can name others that hold its parts), or leave them out with --skip-bad");
    return false;
}

ExitStatus Commands::importMap() {
    requireWords(3);
    const std::string& map = m_options.words[1];
    const Format format = m_options.format.value_or(defaultFormat(map));
    std::vector<Record> records;
    if (!readImport(map, format, records)) {
        return ExitStatus::FAILURE;
    }
    MapStore& maps = store();
    if (!maps.zoneExists()) {
        TESSA_THROW(tessa::NotFoundException,
                    "the zone is not there: quorad-admin zone create '" + maps.zone() + "'");
    }
    const bool fresh = !maps.mapExists(map);
    const std::vector<Entry> existing = fresh ? std::vector<Entry>() : maps.entries(map);
    Plan plan = makePlan(records, existing, foundByValue(format));
    if (m_options.keep) {
        plan.removals.clear();
    }
    if (m_options.dryRun) {
        std::cout << describe(plan);
        say("Would add " + counts(plan, "change ", "remove ", "; "));
        return ExitStatus::SUCCESS;
    }
    if (!plan.removals.empty() &&
        !confirm("Remove " + std::to_string(plan.removals.size()) + " of " +
                 plural(existing.size(), "entry", "entries") + " of '" + map + "'?")) {
        say("Nothing was changed. With --keep nothing is removed");
        return ExitStatus::FAILURE;
    }
    if (fresh) {
        maps.createMap(map);
    }
    return carryOut(map, plan, existing.size());
}

ExitStatus Commands::carryOut(const std::string& map, const Plan& plan, std::size_t existing) {
    std::size_t done = 0;
    try {
        Progress progress("Importing " + map, plan.size());
        m_store->apply(map, plan, [&] {
            ++done;
            progress.step();
        });
    } catch (const tessa::TESSAException& error) {
        say(error.message());
        say("Stopped after " + std::to_string(done) + " of " + std::to_string(plan.size()) +
            " changes; the same import does the rest");
        return ExitStatus::FAILURE;
    }
    say("Added " + counts(plan, "changed ", "removed ", ", ") + "; '" + map + "' has " +
        plural(existing + plan.additions.size() - plan.removals.size(), "entry", "entries"));
    return ExitStatus::SUCCESS;
}

// Names the entries that an import would take for something else.
// False when there are such, and another format has none.
bool Commands::checkExport(const std::vector<Entry>& entries, Format format) {
    bool good = true;
    for (const Entry& entry : entries) {
        if (readsBack(entry.key, entry.value, format)) {
            continue;
        }
        if (!readsBack(entry.key, entry.value, Format::TABBED)) {
            TESSA_THROW(tessa::BadDataException,
                        "entry '" + tessa::printable(entry.key) +
                            "' cannot be told in a line: its key has a tab, or it has a line feed");
        }
        say("Entry '" + tessa::printable(entry.key) +
            "' would not be read as the same from this form");
        good = false;
    }
    return good;
}

ExitStatus Commands::exportMap() {
    requireWords(2);
    const std::string& map = m_options.words[1];
    const Format format = m_options.format.value_or(Format::KEYED);
    if (format != Format::KEYED && format != Format::TABBED) {
        throw UsageError("export: --format is keyed or tabbed");
    }
    MapStore& maps = store();
    if (!maps.mapExists(map)) {
        TESSA_THROW(tessa::NotFoundException, "there is no map '" + map + "' in " + maps.zone());
    }
    const std::vector<Entry> entries = maps.entries(map);
    const bool allReadBack = checkExport(entries, format);
    for (const Entry& entry : entries) {
        std::cout << makeLine(entry.key, entry.value, format) << '\n';
    }
    std::cout.flush();
    if (!std::cout) {
        TESSA_THROW(tessa::IOException, "standard output: " + tessa::errorText(errno));
    }
    if (!allReadBack) {
        say("--format tabbed, for export and import, keeps such entries as they are");
    }
    return ExitStatus::SUCCESS;
}

} // namespace quorad::admin
