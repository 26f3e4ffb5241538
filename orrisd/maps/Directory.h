#pragma once

#include "common/Globals.h"
#include "directory/ADInterface.h"

#include <karst/Exceptions.h>

namespace nis {

/// The way into the directory, kept alive for the pass that uses it.
/// @throws tessa::IPCException while there is none (at start and at the end of the daemon)
inline boost::shared_ptr<ADInterface> directory() {
    auto interface = getADInterface();
    if (!interface) {
        TESSA_THROW(tessa::IPCException, "the directory interface is not there");
    }
    return interface;
}

} // namespace nis
