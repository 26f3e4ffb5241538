#include "Backend.h"

#include "Reporter.h"
#include "ldap/LdapDirectory.h"
#include "ldif/LdifDirectory.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Logger.h>
#include <karst/Text.h>

#include <array>
#include <cerrno>
#include <string_view>

#include <unistd.h>

namespace quorad {

namespace {

constexpr std::string_view LDIF_SCHEME = "ldif:";
constexpr const char* ZONES_FILE = "zones";

bool beginsWith(std::string_view text, std::string_view prefix) {
    return tessa::equalsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

// The path behind "ldif:".
std::string ldifPath(const std::string& source) {
    const std::string named = std::string(PROP_DIRECTORY) + ": '" + source + "': ";
    if (!beginsWith(source, LDIF_SCHEME)) {
        TESSA_THROW(tessa::BadDataException,
                    named + "is neither 'ldif:PATH' nor 'ldap:' nor 'ldap://HOST'");
    }
    std::string path(tessa::trimWhiteSpace(source.substr(LDIF_SCHEME.size())));
    if (path.empty() || path.front() != '/') {
        TESSA_THROW(tessa::BadDataException, named + "an absolute path must follow 'ldif:'");
    }
    return path;
}

std::string sourceOf(const tessa::Properties& configuration) {
    return configuration.get(PROP_DIRECTORY, DEFAULT_DIRECTORY);
}

// What the configuration says of a domain; none when the directory is a file.
// Checks either.
std::optional<ldap::Settings> settingsOf(const tessa::Properties& configuration) {
    if (ldap::Settings::isLdap(sourceOf(configuration))) {
        return ldap::Settings::parse(configuration);
    }
    ldifPath(sourceOf(configuration));
    return std::nullopt;
}

std::string hostName(const tessa::Properties& configuration) {
    std::string configured = configuration.get(PROP_HOST_NAME);
    if (!configured.empty()) {
        return configured;
    }
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0) {
        TESSA_THROW(tessa::SystemException, "gethostname failed: " + tessa::errorText(errno));
    }
    return name.data();
}

} // namespace

void checkConfiguration(const tessa::Properties& configuration) {
    settingsOf(configuration);
    const std::string zone = configuration.get(PROP_ZONE);
    if (!zone.empty() && !tessa::DN::isDN(zone)) {
        TESSA_THROW(tessa::BadDataException,
                    std::string(PROP_ZONE) + ": '" + zone + "' is not a distinguished name");
    }
}

std::shared_ptr<Backend> makeBackend(const tessa::Properties& configuration,
                                     const std::string& stateDirectory,
                                     const std::shared_ptr<Backend>& previous, bool discardState) {
    checkConfiguration(configuration);
    auto backend = std::make_shared<Backend>();
    backend->source = sourceOf(configuration);
    backend->zone = configuration.get(PROP_ZONE);
    backend->hostName = hostName(configuration);
    if (backend->zone.empty()) {
        const auto logger = tessa::Logger::get(LOGGER_NAME);
        KARST_LOG(logger, tessa::LOG_WARN, "%s is not set: nobody can be told the zone", PROP_ZONE);
    }
    backend->settings = settingsOf(configuration);
    if (previous != nullptr && previous->source == backend->source &&
        previous->settings == backend->settings) {
        backend->directory = previous->directory;
    } else if (backend->settings) {
        backend->directory = makeLdapDirectory(*backend->settings, stateDirectory, discardState);
    } else {
        backend->directory =
            makeLdifDirectory(ldifPath(backend->source), stateDirectory, discardState);
    }
    const std::string zonesFile = stateDirectory + "/" + ZONES_FILE;
    if (discardState && ::unlink(zonesFile.c_str()) != 0 && errno != ENOENT) {
        TESSA_THROW(tessa::SystemException,
                    "cannot remove '" + zonesFile + "': " + tessa::errorText(errno));
    }
    backend->zones =
        std::make_unique<Zones>(*backend->directory, backend->zone, backend->hostName, zonesFile);
    return backend;
}

} // namespace quorad
