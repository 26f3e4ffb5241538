#include "yp/Dispatcher.h"

#include "common/Globals.h"
#include "yp/WholeMapStream.h"
#include "yp/YpDescribe.h"
#include "yp/YpProcedures.h"
#include "yp/YpXdr.h"

#include <array>
#include <cstring>

namespace nis {

namespace {

/// The type under which the transports call the routines back, after the library's own type, which
/// leaves the parameters open.
using XdrRoutine = bool_t (*)(XDR*, void*);

/// One procedure of the protocol.
struct Procedure {
    rpcproc_t number;
    const char* name;
    XdrRoutine decode;
    XdrRoutine encode;
    bool (*handle)(const NisServer& server, const void* arguments, void* result);
    void (*describe)(char* buffer, std::size_t length, const void* arguments);
};

// The rows hold routines for their own records; these give all of them the types above.

template <auto ROUTINE> struct Xdr;
template <typename Record, bool_t (*ROUTINE)(XDR*, Record*)> struct Xdr<ROUTINE> {
    static bool_t call(XDR* xdr, void* record) {
        return ROUTINE(xdr, static_cast<Record*>(record));
    }
};

template <auto HANDLER> struct Handler;
template <bool (*HANDLER)()> struct Handler<HANDLER> {
    static bool call(const NisServer&, const void*, void*) { return HANDLER(); }
};
template <typename Request, typename Response, bool (*HANDLER)(const Request&, Response&)>
struct Handler<HANDLER> {
    static bool call(const NisServer&, const void* arguments, void* result) {
        return HANDLER(*static_cast<const Request*>(arguments), *static_cast<Response*>(result));
    }
};
template <typename Request, typename Response,
          bool (*HANDLER)(const NisServer&, const Request&, Response&)>
struct Handler<HANDLER> {
    static bool call(const NisServer& server, const void* arguments, void* result) {
        return HANDLER(server, *static_cast<const Request*>(arguments),
                       *static_cast<Response*>(result));
    }
};

template <auto DESCRIBER> struct Describer;
template <void (*DESCRIBER)(char*, std::size_t)> struct Describer<DESCRIBER> {
    static void call(char* buffer, std::size_t length, const void*) { DESCRIBER(buffer, length); }
};
template <typename Request, void (*DESCRIBER)(char*, std::size_t, const Request&)>
struct Describer<DESCRIBER> {
    static void call(char* buffer, std::size_t length, const void* arguments) {
        DESCRIBER(buffer, length, *static_cast<const Request*>(arguments));
    }
};

template <auto DECODE, auto ENCODE, auto HANDLE, auto DESCRIBE>
constexpr Procedure row(rpcproc_t number, const char* name) {
    return {number,
            name,
            Xdr<DECODE>::call,
            Xdr<ENCODE>::call,
            Handler<HANDLE>::call,
            Describer<DESCRIBE>::call};
}

constexpr std::array<Procedure, YPPROC_COUNT> PROCEDURES = {
    row<&xdr_nothing, &xdr_nothing, &ypproc_null_2_svc, &ypproc_null_2_string>(YPPROC_NULL,
                                                                               "ypproc_null_2_svc"),
    row<&xdr_domainname, &xdr_served, &ypproc_domain_2_svc, &ypproc_domain_2_string>(
        YPPROC_DOMAIN, "ypproc_domain_2_svc"),
    row<&xdr_domainname, &xdr_served, &ypproc_domain_nonack_2_svc, &ypproc_domain_nonack_2_string>(
        YPPROC_DOMAIN_NONACK, "ypproc_domain_nonack_2_svc"),
    row<&xdr_ypreq_key, &xdr_ypresp_val, &ypproc_match_2_svc, &ypproc_match_2_string>(
        YPPROC_MATCH, "ypproc_match_2_svc"),
    row<&xdr_ypreq_nokey, &xdr_ypresp_key_val, &ypproc_first_2_svc, &ypproc_first_2_string>(
        YPPROC_FIRST, "ypproc_first_2_svc"),
    row<&xdr_ypreq_key, &xdr_ypresp_key_val, &ypproc_next_2_svc, &ypproc_next_2_string>(
        YPPROC_NEXT, "ypproc_next_2_svc"),
    row<&xdr_ypreq_xfr, &xdr_ypresp_xfr, &ypproc_xfr_2_svc, &ypproc_xfr_2_string>(
        YPPROC_XFR, "ypproc_xfr_2_svc"),
    row<&xdr_nothing, &xdr_nothing, &ypproc_clear_2_svc, &ypproc_clear_2_string>(
        YPPROC_CLEAR, "ypproc_clear_2_svc"),
    row<&xdr_ypreq_nokey, &xdr_ypresp_all, &ypproc_all_2_svc, &ypproc_all_2_string>(
        YPPROC_ALL, "ypproc_all_2_svc"),
    row<&xdr_ypreq_nokey, &xdr_ypresp_master, &ypproc_master_2_svc, &ypproc_master_2_string>(
        YPPROC_MASTER, "ypproc_master_2_svc"),
    row<&xdr_ypreq_nokey, &xdr_ypresp_order, &ypproc_order_2_svc, &ypproc_order_2_string>(
        YPPROC_ORDER, "ypproc_order_2_svc"),
    row<&xdr_domainname, &xdr_ypresp_maplist, &ypproc_maplist_2_svc, &ypproc_maplist_2_string>(
        YPPROC_MAPLIST, "ypproc_maplist_2_svc"),
    row<&xdr_ypreq_newxfr, &xdr_ypresp_xfr, &ypproc_newxfr_2_svc, &ypproc_newxfr_2_string>(
        YPPROC_NEWXFR, "ypproc_newxfr_2_svc"),
};

constexpr bool rowsAreInOrder() {
    for (rpcproc_t number = 0; number < PROCEDURES.size(); ++number) {
        if (PROCEDURES[number].number != number) {
            return false;
        }
    }
    return true;
}
static_assert(rowsAreInOrder());

union Arguments {
    domainname domain;
    ypreq_key key;
    ypreq_nokey nokey;
    ypreq_xfr xfr;
    ypreq_newxfr newxfr;
};

union Result {
    bool_t served;
    ypresp_val value;
    ypresp_key_val pair;
    ypresp_master master;
    ypresp_order order;
    ypresp_maplist maps;
    ypresp_xfr xfr;
    ypresp_all all;
};

xdrproc_t libraryType(XdrRoutine routine) {
    return reinterpret_cast<xdrproc_t>(routine);
}

void execute(const Procedure& procedure, const NisServer& server, SVCXPRT* transport,
             const Arguments& arguments) {
    Result result = {};
    std::memset(&result, 0, sizeof result); // all of it, whichever record it is
    if (procedure.handle(server, &arguments, &result) &&
        svc_sendreply(transport, libraryType(procedure.encode), &result) != TRUE) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "The reply of %s did not go out", procedure.name);
        svcerr_systemerr(transport);
    }
    if (!ypprog_2_freeresult(transport, libraryType(procedure.encode), &result)) {
        KARST_LOG(logger, tessa::LOG_WARN, "ypprog_2_freeresult failed: potential memory leak");
    }
}

} // namespace

bool ypprog_2_freeresult(SVCXPRT*, xdrproc_t encode, void* result) {
    XDR xdr{};
    xdr.x_op = XDR_FREE;
    const bool freed = reinterpret_cast<XdrRoutine>(encode)(&xdr, result) == TRUE;
    DestructMapIterator(GetMapIteratorFromTSS());
    return freed;
}

void serveYpCall(const NisServer& server, svc_req* request, SVCXPRT* transport, bool execution,
                 char* description, std::size_t length) {
    // A call that is only described comes from someone who must not get any reply.
    if (request->rq_proc >= PROCEDURES.size()) {
        if (execution) {
            svcerr_noproc(transport);
        }
        return;
    }
    const Procedure& procedure = PROCEDURES[request->rq_proc];
    Arguments arguments = {};
    std::memset(&arguments, 0, sizeof arguments);
    const xdrproc_t decode = libraryType(procedure.decode);
    if (svc_getargs(transport, decode, &arguments) != TRUE) {
        if (execution) {
            svcerr_decode(transport);
        }
    } else if (execution) {
        execute(procedure, server, transport, arguments);
    } else {
        procedure.describe(description, length, &arguments);
    }
    // What was decoded before a failure is freed as well.
    if (svc_freeargs(transport, decode, &arguments) != TRUE) {
        KARST_LOG(logger, tessa::LOG_WARN, "svc_freeargs failed: potential memory leak");
    }
}

} // namespace nis
