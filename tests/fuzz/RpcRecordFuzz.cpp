// A TCP stream of RPC records, cut into pieces at places that the input chooses: no input may crash
// the record reader or the call decoder, and no record may be larger than allowed.
#include "daemon/transport/CallTransport.h"
#include "daemon/transport/RecordReader.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

namespace {

constexpr std::size_t LIMIT = 4096;

bool_t xdrBytes(XDR* xdr, void* record) {
    auto* bytes = static_cast<std::pair<char*, u_int>*>(record);
    return xdr_bytes(xdr, &bytes->first, &bytes->second, 1024);
}

/// Decodes one byte range and sends it back.
void echo(svc_req*, SVCXPRT* transport) {
    std::pair<char*, u_int> bytes{nullptr, 0};
    const auto routine = reinterpret_cast<xdrproc_t>(xdrBytes);
    if (svc_getargs(transport, routine, &bytes) == TRUE) {
        svc_sendreply(transport, routine, &bytes);
    } else {
        svcerr_decode(transport);
    }
    svc_freeargs(transport, routine, &bytes);
}

constexpr nis::RpcProgram PROGRAM{100004, 2, echo};

class MemoryCall final : public nis::CallTransport {
public:
    MemoryCall() : CallTransport(PROGRAM, -1) {}

private:
    bool send(rpc_msg& reply, bool& committed) override {
        std::vector<char> buffer(LIMIT);
        XDR xdr{};
        xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
        committed = xdr_replymsg(&xdr, &reply) == TRUE;
        return committed;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t piece = std::size_t{data[0]} + 1;
    std::vector<char> stream(data + 1, data + size);
    nis::RecordReader reader(LIMIT);
    MemoryCall call;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        std::span<char> input(stream.data() + at, std::min(piece, stream.size() - at));
        while (!input.empty()) {
            std::span<char> record;
            switch (reader.feed(input, record)) {
            case nis::RecordReader::Status::Bogus:
                return 0;
            case nis::RecordReader::Status::NeedMore:
                if (!input.empty()) {
                    std::abort();
                }
                break;
            case nis::RecordReader::Status::Complete:
                if (record.size() > LIMIT) {
                    std::abort();
                }
                call.serve(record);
                break;
            }
        }
    }
    return 0;
}
