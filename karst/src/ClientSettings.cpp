#include "karst/Exceptions.h"
#include "karst/LocalRpcSession.h"
#include "karst/Text.h"

namespace tessa {

std::string loadSetting(const std::string& name, bool required, bool trim) {
    LocalRpcSession session(QUORAD_SOCKET, false, false);
    std::string value;
    try {
        value = session.loadSetting(name);
    } catch (const NotFoundException&) {
        if (required) {
            throw;
        }
    }
    return trim ? std::string(trimWhiteSpace(value)) : value;
}

} // namespace tessa
