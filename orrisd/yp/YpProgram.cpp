#include "common/Globals.h"
#include "server/ADNisServer.h"
#include "yp/Dispatcher.h"

namespace nis {

void ypprog_2(svc_req* request, SVCXPRT* transport, bool execute, char* description,
              std::size_t length) {
    const boost::shared_ptr<ADNisServer> server = getNisServer();
    if (server) {
        serveYpCall(*server, request, transport, execute, description, length);
    }
}

} // namespace nis
