#pragma once

#include "Format.h"
#include "Login.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorad::admin {

/// The command line cannot be understood; the text says why.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What the command line says.
struct Options {
    std::vector<std::string> words; ///< command and its arguments
    bool help = false;
    bool version = false;
    bool dryRun = false;
    bool yes = false;
    bool keep = false;    ///< import removes nothing
    bool skipBad = false; ///< import goes on without lines that cannot be taken over
    std::string configuration = "/etc/velmorix/velmorix.conf";
    std::string zone; ///< empty: the configured one
    std::string nisdomain;
    std::optional<Format> format;
    LoginOptions login;

    /// @param arguments without the program's name
    /// @throws UsageError
    static Options parse(const std::vector<std::string>& arguments);
};

/// The text of --help.
std::string usage();

} // namespace quorad::admin
