#pragma once

#include "../Directory.h"
#include "Settings.h"

#include <memory>
#include <string>

namespace quorad {

/// The directory of an Active Directory domain, asked through LDAP.
/// @param stateDirectory where to remember what clients were told of
/// @param discardState begin without what was remembered
/// @throws tessa::SystemException when the state cannot be kept; a domain that cannot be asked now
///         is no error
std::unique_ptr<Directory> makeLdapDirectory(const ldap::Settings& settings,
                                             const std::string& stateDirectory, bool discardState);

} // namespace quorad
