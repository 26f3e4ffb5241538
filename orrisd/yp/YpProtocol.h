#pragma once

#include <rpc/rpc.h>

/// The records of the YP protocol, program 100004 version 2, under their published names. Strings
/// and byte ranges are heap memory of the C library: the XDR routines (YpXdr.h) allocate and free
/// them.
namespace nis {

inline constexpr u_int YPMAXRECORD = 1024; ///< bytes of a key in a call
inline constexpr u_int YPMAXDOMAIN = 256;
inline constexpr u_int YPMAXMAP = 64;
inline constexpr u_int YPMAXPEER = 64;
inline constexpr u_int YPMAXNAME = 256;
/// Bytes of a key or a value in a reply. Maps made from the directory have longer values than the
/// protocol once foresaw (large groups), and clients of today take them.
inline constexpr u_int YPMAXREPLY = 16 * 1024 * 1024;

inline constexpr rpcprog_t YPPROG = 100004;
inline constexpr rpcvers_t YPVERS = 2;
inline constexpr rpcvers_t YPOLDVERS = 1;

enum YpProcedure : rpcproc_t {
    YPPROC_NULL = 0,
    YPPROC_DOMAIN = 1,
    YPPROC_DOMAIN_NONACK = 2,
    YPPROC_MATCH = 3,
    YPPROC_FIRST = 4,
    YPPROC_NEXT = 5,
    YPPROC_XFR = 6,
    YPPROC_CLEAR = 7,
    YPPROC_ALL = 8,
    YPPROC_MASTER = 9,
    YPPROC_ORDER = 10,
    YPPROC_MAPLIST = 11,
    YPPROC_NEWXFR = 12,
    YPPROC_COUNT = 13,
};

enum ypstat : int {
    YP_TRUE = 1,
    YP_NOMORE = 2,
    YP_FALSE = 0,
    YP_NOMAP = -1,
    YP_NODOM = -2,
    YP_NOKEY = -3,
    YP_BADOP = -4,
    YP_BADDB = -5,
    YP_YPERR = -6,
    YP_BADARGS = -7,
    YP_VERS = -8,
};

enum ypxfrstat : int {
    YPXFR_SUCC = 1,
    YPXFR_AGE = 2,
    YPXFR_NOMAP = -1,
    YPXFR_NODOM = -2,
    YPXFR_RSRC = -3,
    YPXFR_RPC = -4,
    YPXFR_MADDR = -5,
    YPXFR_YPERR = -6,
    YPXFR_BADARGS = -7,
    YPXFR_DBM = -8,
    YPXFR_FILE = -9,
    YPXFR_SKEW = -10,
    YPXFR_CLEAR = -11,
    YPXFR_FORCE = -12,
    YPXFR_XFRERR = -13,
    YPXFR_REFUSED = -14,
};

enum ypbind_resptype : int { YPBIND_SUCC_VAL = 1, YPBIND_FAIL_VAL = 2 };

using domainname = char*;
using mapname = char*;
using peername = char*;

struct keydat {
    u_int keydat_len;
    char* keydat_val;
};

struct valdat {
    u_int valdat_len;
    char* valdat_val;
};

struct ypmap_parms {
    domainname domain;
    mapname map;
    u_int ordernum;
    peername peer;
};

struct ypreq_key {
    domainname domain;
    mapname map;
    keydat key;
};

struct ypreq_nokey {
    domainname domain;
    mapname map;
};

struct ypreq_xfr {
    ypmap_parms map_parms;
    u_int transid;
    u_int prog;
    u_int port;
};

struct ypreq_newxfr {
    ypmap_parms map_parms;
    u_int transid;
    u_int prog;
    char* name;
};

struct ypresp_val {
    ypstat stat;
    valdat val;
};

struct ypresp_key_val {
    ypstat stat;
    keydat key;
    valdat val;
};

struct ypresp_master {
    ypstat stat;
    peername peer;
};

struct ypresp_order {
    ypstat stat;
    u_int ordernum;
};

struct ypmaplist {
    mapname map;
    ypmaplist* next;
};

struct ypresp_maplist {
    ypstat stat;
    ypmaplist* maps;
};

struct ypresp_xfr {
    u_int transid;
    ypxfrstat xfrstat;
};

/// One record of a whole-map transfer: while `more` is set there is an entry, or an error.
struct ypresp_all {
    bool_t more;
    ypresp_key_val val;
};

// Of the binder and of the transfer call-back; part of the protocol, used by no procedure here.

struct yppushresp_xfr {
    u_int transid;
    ypxfrstat status;
};

struct ypbind_binding {
    char ypbind_binding_addr[4];
    char ypbind_binding_port[2];
};

struct ypbind_resp {
    ypbind_resptype ypbind_status;
    union {
        u_int ypbind_error;
        ypbind_binding ypbind_bindinfo;
    } ypbind_resp_u;
};

struct ypbind_setdom {
    domainname ypsetdom_domain;
    ypbind_binding ypsetdom_binding;
    u_int ypsetdom_vers;
};

} // namespace nis
