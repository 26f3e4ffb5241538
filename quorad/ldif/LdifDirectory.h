#pragma once

#include "../Directory.h"

#include <memory>
#include <string>

namespace quorad {

/// The embedded directory: an LDIF file, read again whenever it changes.
///
/// The file's objects are kept in an index in the state directory, so neither memory nor the time
/// of a restart grows with the file, and so that every object keeps its GUID and its update
/// sequence number for as long as it does not change. A file that cannot be parsed leaves the last
/// good state in service; a file that is missing makes every operation fail.
///
/// The first load happens in the first maintain(); until then operations fail, unless the index
/// already holds what the file says.
/// @param ldifPath the file
/// @param stateDirectory an existing folder of our own, for the index
/// @param discardState begin with an empty index
/// @throws tessa::SystemException, tessa::DBException when the index cannot be made
std::unique_ptr<Directory> makeLdifDirectory(const std::string& ldifPath,
                                             const std::string& stateDirectory, bool discardState);

} // namespace quorad
