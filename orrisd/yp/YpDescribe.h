#pragma once

#include "common/Globals.h"
#include "yp/YpProtocol.h"

#include <cstddef>

/// A call as a text for logs. Each prints into a buffer of that length, cut short if need be and
/// always ended by a zero.
namespace nis {

/// Room for a description in a log line.
inline constexpr std::size_t DESCRIPTION_SIZE = 512;

void ypproc_null_2_string(char* buffer, std::size_t length);
void ypproc_domain_2_string(char* buffer, std::size_t length, const domainname& domain);
void ypproc_domain_nonack_2_string(char* buffer, std::size_t length, const domainname& domain);
void ypproc_match_2_string(char* buffer, std::size_t length, const ypreq_key& request);
void ypproc_first_2_string(char* buffer, std::size_t length, const ypreq_nokey& request);
void ypproc_next_2_string(char* buffer, std::size_t length, const ypreq_key& request);
void ypproc_xfr_2_string(char* buffer, std::size_t length, const ypreq_xfr& request);
void ypproc_clear_2_string(char* buffer, std::size_t length);
void ypproc_all_2_string(char* buffer, std::size_t length, const ypreq_nokey& request);
void ypproc_master_2_string(char* buffer, std::size_t length, const ypreq_nokey& request);
void ypproc_order_2_string(char* buffer, std::size_t length, const ypreq_nokey& request);
void ypproc_maplist_2_string(char* buffer, std::size_t length, const domainname& domain);
void ypproc_newxfr_2_string(char* buffer, std::size_t length, const ypreq_newxfr& request);

/// Logs "Processing" and the description at debug level; makes no description below that.
template <typename Describe, typename... Request>
void logCall(Describe describe, const Request&... request) {
    if (logger->enabled(tessa::LOG_DEBUGGING)) {
        char description[DESCRIPTION_SIZE];
        describe(description, sizeof description, request...);
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Processing %s", description);
    }
}

} // namespace nis
