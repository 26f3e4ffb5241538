#pragma once

#include "MapStore.h"
#include "Options.h"

#include <memory>
#include <string>

namespace quorad::admin {

enum class ExitStatus { SUCCESS = 0, FAILURE = 1, USAGE = 2 };

/// Runs one command of the command line. Results go to standard output, everything else to standard
/// error.
class Commands {
public:
    explicit Commands(const Options& options) : m_options(options) {}

    /// @throws UsageError, tessa::TESSAException
    ExitStatus run();

private:
    ExitStatus joinCheck();
    ExitStatus createZone();
    ExitStatus listMaps();
    ExitStatus createMap();
    ExitStatus deleteMap();
    ExitStatus importMap();
    ExitStatus exportMap();

    /// The file that an import names, checked and cut into records.
    /// @return false when it has lines that cannot be taken over, which have been reported
    bool readImport(const std::string& map, Format format, std::vector<Record>& records);
    static bool checkExport(const std::vector<Entry>& entries, Format format);
    ExitStatus carryOut(const std::string& map, const Plan& plan, std::size_t existing);
    void requireWords(std::size_t count) const;
    /// Asks at the terminal, unless --yes was given.
    /// @return false when the answer is no, or nobody can be asked
    bool confirm(const std::string& question) const;
    /// Connects; once.
    MapStore& store(const std::string& zone = "");

    const Options& m_options;
    tessa::Properties m_configuration;
    Login m_login;
    std::unique_ptr<MapStore> m_store;
};

} // namespace quorad::admin
