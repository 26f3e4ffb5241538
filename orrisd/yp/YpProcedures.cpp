#include "yp/YpProcedures.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "yp/WholeMapStream.h"
#include "yp/YpDescribe.h"
#include "yp/YpXdr.h"

#include <cstdlib>
#include <new>
#include <string>

namespace nis {

namespace {

/// Which failures a procedure knows by name.
enum class Keys { Matter, DoNot };

void logFailure(const char* prefix, const char* what, const char* detail) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: %s: %s", prefix, what, detail);
}

void logUnexpected(const char* prefix, NisException& e) {
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: unexpected exception '%s'", prefix,
              e.msg().c_str());
}

/// Runs a procedure's work, which returns its status, and turns what it throws into one.
template <Keys KEYS = Keys::DoNot, typename Work> ypstat statusOf(const char* prefix, Work work) {
    try {
        return work();
    } catch (const ZeroPointer& e) {
        logFailure(prefix, "Null argument", e.what());
        return YP_BADARGS;
    } catch (const WrongDomain& e) {
        logFailure(prefix, "Not our domain", e.what());
        return YP_NODOM;
    } catch (const UnknownMap& e) {
        logFailure(prefix, "Unsupported map", e.what());
        return YP_NOMAP;
    } catch (UnknownKey& e) {
        if constexpr (KEYS == Keys::Matter) {
            logFailure(prefix, "don't have this key", e.what());
            return YP_NOKEY;
        }
        logUnexpected(prefix, e);
        return YP_YPERR;
    } catch (const std::bad_alloc&) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: out of memory", prefix);
        return YP_FALSE;
    } catch (NisException& e) {
        logUnexpected(prefix, e);
        return YP_YPERR;
    } catch (...) {
        return YP_YPERR;
    }
}

std::string keyOf(const ypreq_key& request) {
    if (request.key.keydat_val == nullptr) {
        NIS_THROW(ZeroPointer, "key argument is zero");
    }
    return {request.key.keydat_val, request.key.keydat_len};
}

/// The pair that first or next found, or the end of the map.
ypstat answerPair(const char* prefix, const MapEntry& entry, ypresp_key_val& response) {
    if (entry.key.empty()) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: map is empty", prefix);
        return YP_NOMORE;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: got pair (%.*s, %.*s)", prefix,
              static_cast<int>(entry.key.size()), entry.key.data(),
              static_cast<int>(entry.value.size()), entry.value.data());
    StrCopy(entry, response.key, response.val);
    return YP_TRUE;
}

/// Whether the domain is served; no on every failure.
bool isServed(const char* prefix, const NisServer& server, const domainname& domain) {
    try {
        return server.isDomainSupported(domain);
    } catch (const ZeroPointer&) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: Null domain name", prefix);
    } catch (const std::bad_alloc&) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: out of memory", prefix);
    } catch (NisException& e) {
        logUnexpected(prefix, e);
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: unexpected exception '%s'", prefix, e.what());
    } catch (...) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "%s: unexpected exception '%s'", prefix,
                  "of unknown kind");
    }
    return false;
}

/// The list in the order of the names. A longer name than the protocol allows would make clients
/// reject the whole list, and none could ask for that map.
void listMaps(const MapNames& names, ypresp_maplist& response) {
    ypmaplist** end = &response.maps;
    for (const std::string& name : *names) {
        if (name.size() > YPMAXMAP) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypOrder: map name too long to list: %s",
                      name.c_str());
            continue;
        }
        auto* node = static_cast<ypmaplist*>(std::calloc(1, sizeof(ypmaplist)));
        if (node == nullptr) {
            throw std::bad_alloc();
        }
        *end = node; // from here on the response frees it
        end = &node->next;
        node->map = memdup(name.c_str(), name.size() + 1);
    }
}

void refuse(ypresp_xfr& response) {
    response.transid = 0;
    response.xfrstat = YPXFR_REFUSED;
}

} // namespace

bool ypproc_null_2_svc() {
    logCall(ypproc_null_2_string);
    return true;
}

bool ypproc_domain_2_svc(const NisServer& server, const domainname& domain, bool_t& served) {
    logCall(ypproc_domain_2_string, domain);
    served = isServed("ypIsDomainServed", server, domain) ? TRUE : FALSE;
    return true;
}

bool ypproc_domain_nonack_2_svc(const NisServer& server, const domainname& domain, bool_t& served) {
    logCall(ypproc_domain_nonack_2_string, domain);
    served = isServed("ypIsDomainServedNoAck", server, domain) ? TRUE : FALSE;
    return served == TRUE;
}

bool ypproc_match_2_svc(const NisServer& server, const ypreq_key& request, ypresp_val& response) {
    logCall(ypproc_match_2_string, request);
    response.stat = statusOf<Keys::Matter>("ypMatch", [&] {
        const std::string key = keyOf(request);
        const MapEntry entry = server.match(request.domain, request.map, key);
        response.val.valdat_val = memdup(entry.value.data(), entry.value.size());
        response.val.valdat_len = static_cast<u_int>(entry.value.size());
        return YP_TRUE;
    });
    return true;
}

bool ypproc_first_2_svc(const NisServer& server, const ypreq_nokey& request,
                        ypresp_key_val& response) {
    logCall(ypproc_first_2_string, request);
    response.stat = statusOf("ypFirst", [&] {
        return answerPair("ypFirst", server.getFirst(request.domain, request.map), response);
    });
    return true;
}

bool ypproc_next_2_svc(const NisServer& server, const ypreq_key& request,
                       ypresp_key_val& response) {
    logCall(ypproc_next_2_string, request);
    response.stat = statusOf<Keys::Matter>("ypNext", [&] {
        const std::string key = keyOf(request);
        return answerPair("ypNext", server.getNext(request.domain, request.map, key), response);
    });
    return true;
}

bool ypproc_xfr_2_svc(const ypreq_xfr& request, ypresp_xfr& response) {
    logCall(ypproc_xfr_2_string, request);
    refuse(response);
    return true;
}

bool ypproc_clear_2_svc() {
    logCall(ypproc_clear_2_string);
    return true;
}

bool ypproc_master_2_svc(const NisServer& server, const ypreq_nokey& request,
                         ypresp_master& response) {
    logCall(ypproc_master_2_string, request);
    response.stat = statusOf("ypMaster", [&] {
        const std::string master = server.getMaster(request.domain, request.map);
        response.peer = memdup(master.c_str(), master.size() + 1);
        return YP_TRUE;
    });
    return true;
}

bool ypproc_order_2_svc(const NisServer& server, const ypreq_nokey& request,
                        ypresp_order& response) {
    logCall(ypproc_order_2_string, request);
    response.stat = statusOf("ypOrder", [&] {
        response.ordernum = server.getOrder(request.domain, request.map);
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "Order: map %s, %d", request.map,
                  static_cast<int>(response.ordernum));
        return YP_TRUE;
    });
    return true;
}

bool ypproc_maplist_2_svc(const NisServer& server, const domainname& domain,
                          ypresp_maplist& response) {
    logCall(ypproc_maplist_2_string, domain);
    // The prefix is that of the order procedure: log readers look for it.
    response.stat = statusOf("ypOrder", [&] {
        listMaps(server.getMapList(domain), response);
        return YP_TRUE;
    });
    if (response.stat != YP_TRUE) {
        XDR xdr{};
        xdr.x_op = XDR_FREE;
        xdr_ypresp_maplist(&xdr, &response); // no part of a list goes out with an error
    }
    return true;
}

bool ypproc_newxfr_2_svc(const ypreq_newxfr& request, ypresp_xfr& response) {
    logCall(ypproc_newxfr_2_string, request);
    refuse(response);
    return true;
}

} // namespace nis
