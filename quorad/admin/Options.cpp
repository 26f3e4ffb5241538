#include "Options.h"

#include <algorithm>
#include <array>
#include <functional>
#include <string_view>

namespace quorad::admin {

namespace {

struct Flag {
    std::string_view name;
    bool& (*target)(Options&);
};
constexpr std::array<Flag, 9> FLAGS{{
    {"--help", [](Options& o) -> bool& { return o.help; }},
    {"-h", [](Options& o) -> bool& { return o.help; }},
    {"--version", [](Options& o) -> bool& { return o.version; }},
    {"--dry-run", [](Options& o) -> bool& { return o.dryRun; }},
    {"-n", [](Options& o) -> bool& { return o.dryRun; }},
    {"--yes", [](Options& o) -> bool& { return o.yes; }},
    {"--keep", [](Options& o) -> bool& { return o.keep; }},
    {"--skip-bad", [](Options& o) -> bool& { return o.skipBad; }},
    {"--machine", [](Options& o) -> bool& { return o.login.machine; }},
}};

struct Setting {
    std::string_view name;
    std::string& (*target)(Options&);
};
constexpr std::array<Setting, 6> SETTINGS{{
    {"--config", [](Options& o) -> std::string& { return o.configuration; }},
    {"--zone", [](Options& o) -> std::string& { return o.zone; }},
    {"--nisdomain", [](Options& o) -> std::string& { return o.nisdomain; }},
    {"--server", [](Options& o) -> std::string& { return o.login.server; }},
    {"--bind", [](Options& o) -> std::string& { return o.login.bindDn; }},
    {"--password-file", [](Options& o) -> std::string& { return o.login.passwordFile; }},
}};

void setFormat(Options& options, const std::string& name) {
    Format format{};
    if (!formatFromName(name, format)) {
        throw UsageError("--format: '" + name + "' is none of " + formatNames());
    }
    options.format = format;
}

// Takes "--name=value" or "--name value"; `at` then points to the last word used.
void takeSetting(Options& options, const std::vector<std::string>& arguments, std::size_t& at) {
    const std::string& word = arguments[at];
    const std::size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    const auto* const found = std::find_if(SETTINGS.begin(), SETTINGS.end(),
                                           [&](const Setting& one) { return one.name == name; });
    if (found == SETTINGS.end() && name != "--format") {
        throw UsageError("unknown option '" + word + "'");
    }
    std::string value;
    if (equals != std::string::npos) {
        value = word.substr(equals + 1);
    } else if (++at < arguments.size()) {
        value = arguments[at];
    }
    if (value.empty()) {
        throw UsageError(name + " needs a value");
    }
    if (name == "--format") {
        setFormat(options, value);
    } else {
        found->target(options) = value;
    }
}

} // namespace

Options Options::parse(const std::vector<std::string>& arguments) {
    Options options;
    bool words = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        const auto* const flag = std::find_if(FLAGS.begin(), FLAGS.end(),
                                              [&](const Flag& one) { return one.name == word; });
        if (words || word == "-" || word.substr(0, 1) != "-") {
            options.words.push_back(word);
        } else if (word == "--") {
            words = true;
        } else if (flag != FLAGS.end()) {
            flag->target(options) = true;
        } else {
            takeSetting(options, arguments, i);
        }
    }
    if (!options.login.bindDn.empty() && options.login.passwordFile.empty()) {
        throw UsageError("--bind needs --password-file");
    }
    return options;
}

std::string usage() {
    return "usage: quorad-admin [OPTION...] COMMAND\n"
           "\n"
           "Looks after the zones and maps of an Active Directory domain.\n"
           "\n"
           "commands:\n"
           "  join-check               look at everything between this machine and its maps\n"
           "  zone create DN           make a zone (with --nisdomain: and say its NIS domain)\n"
           "  map list                 the maps of the zone and how many entries they have\n"
           "  map create MAP           make an empty map\n"
           "  map delete MAP           remove a map with all its entries\n"
           "  import MAP FILE          make a map what a file says; - is standard input\n"
           "  export MAP               print a map as `ypcat -k` would, or --format tabbed\n"
           "\n"
           "options:\n"
           "  -n, --dry-run            say what would be done, and change nothing\n"
           "      --yes                remove without asking\n"
           "      --keep               import: leave entries that the file does not have\n"
           "      --skip-bad           import: leave out lines that cannot be taken over\n"
           "      --format FORMAT      import: " +
           formatNames() +
           "\n"
           "                           (default: by the name of the map)\n"
           "      --zone DN            another zone than the configured one\n"
           "      --nisdomain NAME     zone create: NIS domain of the zone\n"
           "      --server HOST        this domain controller only\n"
           "      --machine            as the machine account, not with the caller's tickets\n"
           "      --bind DN            simple bind over TLS as somebody else,\n"
           "      --password-file F    with the password in this file\n"
           "      --config FILE        another configuration than /etc/velmorix/velmorix.conf\n"
           "      --version, --help\n"
           "\n"
           "Whoever changes something needs the right to: run kinit first, and the tickets are\n"
           "used. Without tickets the machine account asks. See quorad-admin(8).\n";
}

} // namespace quorad::admin
