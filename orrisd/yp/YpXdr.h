#pragma once

#include "yp/YpProtocol.h"

/// Encode, decode and free the records of the protocol, as the stream's operation says. What comes
/// in is bounded before anything is allocated for it. All return FALSE when the stream is too
/// short, too full, or a bound is passed. Thread-safe.
namespace nis {

/// For procedures without arguments or results.
bool_t xdr_nothing(XDR* xdr, void* unused);
/// A truth value, as procedures 1 and 2 answer.
bool_t xdr_served(XDR* xdr, bool_t* served);

bool_t xdr_domainname(XDR* xdr, domainname* name);
bool_t xdr_mapname(XDR* xdr, mapname* name);
bool_t xdr_peername(XDR* xdr, peername* name);
bool_t xdr_keydat(XDR* xdr, keydat* key);
bool_t xdr_valdat(XDR* xdr, valdat* value);
bool_t xdr_ypstat(XDR* xdr, ypstat* status);
bool_t xdr_ypxfrstat(XDR* xdr, ypxfrstat* status);
bool_t xdr_ypmap_parms(XDR* xdr, ypmap_parms* parameters);
bool_t xdr_ypreq_key(XDR* xdr, ypreq_key* request);
bool_t xdr_ypreq_nokey(XDR* xdr, ypreq_nokey* request);
bool_t xdr_ypreq_xfr(XDR* xdr, ypreq_xfr* request);
bool_t xdr_ypreq_newxfr(XDR* xdr, ypreq_newxfr* request);
bool_t xdr_ypresp_val(XDR* xdr, ypresp_val* response);
bool_t xdr_ypresp_key_val(XDR* xdr, ypresp_key_val* response);
bool_t xdr_ypresp_master(XDR* xdr, ypresp_master* response);
bool_t xdr_ypresp_order(XDR* xdr, ypresp_order* response);
bool_t xdr_ypresp_maplist(XDR* xdr, ypresp_maplist* response);
bool_t xdr_ypresp_xfr(XDR* xdr, ypresp_xfr* response);
bool_t xdr_yppushresp_xfr(XDR* xdr, yppushresp_xfr* response);
bool_t xdr_ypbind_binding(XDR* xdr, ypbind_binding* binding);
bool_t xdr_ypbind_resp(XDR* xdr, ypbind_resp* response);
bool_t xdr_ypbind_setdom(XDR* xdr, ypbind_setdom* request);

} // namespace nis
