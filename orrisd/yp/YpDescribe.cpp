#include "yp/YpDescribe.h"

#include <cstdio>

namespace nis {

namespace {

const char* text(const char* name) {
    return name != nullptr ? name : "(null)";
}

/// Keys carry no zero at their end.
int lengthOf(const keydat& key) {
    return key.keydat_val != nullptr ? static_cast<int>(key.keydat_len) : 0;
}

} // namespace

void ypproc_null_2_string(char* buffer, std::size_t length) {
    std::snprintf(buffer, length, "ypNull()");
}

void ypproc_domain_2_string(char* buffer, std::size_t length, const domainname& domain) {
    std::snprintf(buffer, length, "ypIsDomainServed(domain=%s)", text(domain));
}

void ypproc_domain_nonack_2_string(char* buffer, std::size_t length, const domainname& domain) {
    std::snprintf(buffer, length, "ypIsDomainServedNoAck(domain=%s)", text(domain));
}

void ypproc_match_2_string(char* buffer, std::size_t length, const ypreq_key& request) {
    std::snprintf(buffer, length, "ypMatch(domain=%s, map=%s, key=%.*s)", text(request.domain),
                  text(request.map), lengthOf(request.key), request.key.keydat_val);
}

void ypproc_first_2_string(char* buffer, std::size_t length, const ypreq_nokey& request) {
    std::snprintf(buffer, length, "ypFirst(domain=%s, map=%s)", text(request.domain),
                  text(request.map));
}

void ypproc_next_2_string(char* buffer, std::size_t length, const ypreq_key& request) {
    std::snprintf(buffer, length, "ypNext(domain=%s, map=%s, key=%.*s)", text(request.domain),
                  text(request.map), lengthOf(request.key), request.key.keydat_val);
}

void ypproc_xfr_2_string(char* buffer, std::size_t length, const ypreq_xfr& request) {
    std::snprintf(buffer, length,
                  "ypTransfer(domain=%s, map=%s, order=%u, peername=%s, transid=%u, prog=%u, "
                  "port=%u)",
                  text(request.map_parms.domain), text(request.map_parms.map),
                  request.map_parms.ordernum, text(request.map_parms.peer), request.transid,
                  request.prog, request.port);
}

void ypproc_clear_2_string(char* buffer, std::size_t length) {
    std::snprintf(buffer, length, "ypClear()");
}

void ypproc_all_2_string(char* buffer, std::size_t length, const ypreq_nokey& request) {
    std::snprintf(buffer, length, "ypGetAll(domain=%s, map=%s)", text(request.domain),
                  text(request.map));
}

void ypproc_master_2_string(char* buffer, std::size_t length, const ypreq_nokey& request) {
    std::snprintf(buffer, length, "ypMaster(domain=%s, map=%s)", text(request.domain),
                  text(request.map));
}

void ypproc_order_2_string(char* buffer, std::size_t length, const ypreq_nokey& request) {
    std::snprintf(buffer, length, "ypOrder(domain=%s, map=%s)", text(request.domain),
                  text(request.map));
}

void ypproc_maplist_2_string(char* buffer, std::size_t length, const domainname& domain) {
    std::snprintf(buffer, length, "ypGetMapList(domain=%s)", text(domain));
}

/// The trailing name goes under the label that the port has in the older call; log readers know it
/// so.
void ypproc_newxfr_2_string(char* buffer, std::size_t length, const ypreq_newxfr& request) {
    std::snprintf(buffer, length,
                  "ypNewTransfer(domain=%s, map=%s, order=%u, peername=%s, transid=%u, prog=%u, "
                  "port=%s)",
                  text(request.map_parms.domain), text(request.map_parms.map),
                  request.map_parms.ordernum, text(request.map_parms.peer), request.transid,
                  request.prog, text(request.name));
}

} // namespace nis
