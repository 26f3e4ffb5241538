#pragma once

#include "server/NisServer.h"
#include "yp/YpProtocol.h"

/// The handlers of the protocol's procedures (procedure 8 is in WholeMapStream.h). Each turns one
/// call into one operation of the server and its failures into a status; none throws. The response
/// comes in cleared; what a handler attaches to it is heap memory that the response's XDR routine
/// frees.
/// @return whether a reply is to be sent
namespace nis {

bool ypproc_null_2_svc();
bool ypproc_domain_2_svc(const NisServer& server, const domainname& domain, bool_t& served);
/// Says nothing rather than no.
bool ypproc_domain_nonack_2_svc(const NisServer& server, const domainname& domain, bool_t& served);
bool ypproc_match_2_svc(const NisServer& server, const ypreq_key& request, ypresp_val& response);
bool ypproc_first_2_svc(const NisServer& server, const ypreq_nokey& request,
                        ypresp_key_val& response);
bool ypproc_next_2_svc(const NisServer& server, const ypreq_key& request, ypresp_key_val& response);
/// Maps are never transferred by the push protocol.
bool ypproc_xfr_2_svc(const ypreq_xfr& request, ypresp_xfr& response);
/// Touches nothing.
bool ypproc_clear_2_svc();
bool ypproc_master_2_svc(const NisServer& server, const ypreq_nokey& request,
                         ypresp_master& response);
bool ypproc_order_2_svc(const NisServer& server, const ypreq_nokey& request,
                        ypresp_order& response);
bool ypproc_maplist_2_svc(const NisServer& server, const domainname& domain,
                          ypresp_maplist& response);
bool ypproc_newxfr_2_svc(const ypreq_newxfr& request, ypresp_xfr& response);

} // namespace nis
