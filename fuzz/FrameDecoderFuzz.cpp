// Arbitrary bytes as a connection's incoming stream, the way the server reads it: cut into
// chunks (sizes taken from the input itself), decoded into frames, each frame parsed as a
// request envelope and its method path split for routing; END_ERROR texts are parsed back into
// refusals. Nothing may crash, every body must be delivered exactly once whatever the chunking,
// and nothing over the cap may ever be delivered.
#include "QLProtocol/proto/envelope.pb.h"
#include "QLProtocol/transport/CallRefusal.h"
#include "QLProtocol/transport/GRPCFramer.h"
#include "QLProtocol/transport/MethodPath.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::vector<std::string> decode(std::string_view bytes, std::size_t chunk, bool& failed) {
    ql::GRPCFramer framer;
    std::vector<std::string> bodies;
    failed = false;
    while (!bytes.empty() && !failed) {
        const auto take = std::min(chunk, bytes.size());
        failed = static_cast<bool>(framer.feed(bytes.substr(0, take), [&](std::string body) {
            if (body.size() > ql::GRPCFramer::maxBodyLength) std::abort();
            bodies.push_back(std::move(body));
        }));
        bytes.remove_prefix(take);
    }
    return bodies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t chunk = 1 + data[0] % 17;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    bool failedInChunks = false;
    bool failedAtOnce = false;
    const auto chunked = decode(bytes, chunk, failedInChunks);
    const auto whole = decode(bytes, bytes.size() + 1, failedAtOnce);
    if (chunked != whole || failedInChunks != failedAtOnce) std::abort();

    for (const auto& body : whole) {
        ql4::transport::v1::WireRequest request;
        if (!request.ParseFromString(body)) continue;
        if (auto path = ql::MethodPath::parse(request.method())) {
            if (ql::MethodPath::make(path->service, path->method) != request.method()) std::abort();
        }
        ql4::transport::v1::WireStreamResponse element;
        if (element.ParseFromString(body) && element.kind() == ql4::transport::v1::WireStreamResponse::END_ERROR) {
            if (auto refusal = ql::CallRefusal::fromStreamEnd(element.error_message())) {
                if (ql::CallRefusal::fromStreamEnd(refusal->streamEndMessage()) != refusal) std::abort();
            }
        }
    }
    return 0;
}
