#include "daemon/transport/UdpTransport.h"

#include "common/Globals.h"
#include "daemon/transport/Worker.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

namespace nis {

namespace {

/// Datagrams that one wake-up serves before the thread looks at other events.
constexpr int DATAGRAMS_A_TURN = 64;
constexpr int SOCKET_BUFFER = 1024 * 1024;

/// One datagram's call. Keeps the local address that it came to for the reply.
class DatagramCall final : public CallTransport {
public:
    DatagramCall(const RpcProgram& program, int socket, Worker& worker)
        : CallTransport(program, socket), m_socket(socket), m_worker(worker) {}

    /// Receives and serves one datagram.
    /// @return false when there is none, or receiving failed
    bool next() {
        iovec piece{m_worker.datagramIn().data(), m_worker.datagramIn().size()};
        msghdr header = makeHeader(piece);
        header.msg_controllen = sizeof m_control;
        const ssize_t count = receive(header);
        if (count < 0) {
            return false;
        }
        m_controlLength = header.msg_controllen;
        forgetInterface(header);
        if ((header.msg_flags & MSG_TRUNC) == 0 && header.msg_namelen == sizeof m_peer) {
            setPeer(m_peer);
            serve(m_worker.datagramIn().first(static_cast<std::size_t>(count)));
        }
        return true;
    }

private:
    msghdr makeHeader(iovec& piece) {
        msghdr header{};
        header.msg_name = &m_peer;
        header.msg_namelen = sizeof m_peer;
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        header.msg_control = m_control;
        return header;
    }

    ssize_t receive(msghdr& header) const {
        ssize_t count = 0;
        do {
            count = recvmsg(m_socket, &header, MSG_DONTWAIT);
        } while (count < 0 && errno == EINTR);
        if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Receiving over UDP failed: %s",
                      tessa::errorText(errno).c_str());
        }
        return count;
    }

    /// The reply goes back from the same address, by whatever interface the routes say.
    static void forgetInterface(msghdr& header) {
        for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr;
             item = CMSG_NXTHDR(&header, item)) {
            if (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_PKTINFO) {
                in_pktinfo info{};
                std::memcpy(&info, CMSG_DATA(item), sizeof info);
                info.ipi_ifindex = 0;
                std::memcpy(CMSG_DATA(item), &info, sizeof info);
            }
        }
    }

    bool send(rpc_msg& reply, bool& committed) override {
        XDR xdr{};
        const std::span<char> buffer = m_worker.datagramOut();
        xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
        if (xdr_replymsg(&xdr, &reply) != TRUE) {
            return false;
        }
        committed = true;
        iovec piece{buffer.data(), xdr_getpos(&xdr)};
        msghdr header = makeHeader(piece);
        header.msg_controllen = m_controlLength;
        ssize_t count = 0;
        do {
            count = sendmsg(m_socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
        } while (count < 0 && errno == EINTR);
        if (count < 0) {
            KARST_LOG(logger, tessa::LOG_DEBUGGING, "Replying over UDP failed: %s",
                      tessa::errorText(errno).c_str());
        }
        return count >= 0;
    }

    const int m_socket;
    Worker& m_worker;
    sockaddr_in m_peer{};
    alignas(cmsghdr) char m_control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    std::size_t m_controlLength = 0;
};

void setBuffer(int socket, int forced, int option) {
    if (setsockopt(socket, SOL_SOCKET, forced, &SOCKET_BUFFER, sizeof SOCKET_BUFFER) != 0) {
        setsockopt(socket, SOL_SOCKET, option, &SOCKET_BUFFER, sizeof SOCKET_BUFFER);
    }
}

} // namespace

UdpTransport::UdpTransport(const RpcProgram& program, int socket)
    : m_program(program), m_socket(socket) {
    const int on = 1;
    if (setsockopt(socket, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0) {
        TESSA_THROW(tessa::SystemException, tessa::errorText(errno));
    }
    // Bursts of calls should wait in the kernel rather than be lost; without it they come again.
    setBuffer(socket, SO_RCVBUFFORCE, SO_RCVBUF);
    setBuffer(socket, SO_SNDBUFFORCE, SO_SNDBUF);
}

bool UdpTransport::onReady(Worker& worker) {
    DatagramCall call(m_program, m_socket, worker);
    for (int count = 0; count < DATAGRAMS_A_TURN; ++count) {
        if (m_stopped.load(std::memory_order_relaxed) || !call.next()) {
            return false;
        }
    }
    return true;
}

} // namespace nis
