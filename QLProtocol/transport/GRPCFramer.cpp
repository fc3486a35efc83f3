#include "QLProtocol/transport/GRPCFramer.h"

#include <algorithm>

namespace ql {

namespace {
// A header may announce up to 64 MiB; memory is reserved in steps of at most this much as the
// body actually arrives.
constexpr std::size_t reserveStep = 1u << 20;
}  // namespace

std::error_code GRPCFramer::feed(std::string_view bytes, const Deliver& deliver) {
    if (failed_) return std::make_error_code(std::errc::bad_message);
    while (!bytes.empty()) {
        if (auto* header = std::get_if<AwaitingHeader>(&state_)) {
            const std::size_t take = std::min(headerLength - header->partial.size(), bytes.size());
            header->partial.append(bytes.substr(0, take));
            bytes.remove_prefix(take);
            if (header->partial.size() < headerLength) break;
            const std::uint32_t length = announcedLength(header->partial);
            if (length > maxBodyLength) {
                failed_ = true;
                rejectedLength_ = length;
                state_ = AwaitingHeader{};
                return std::make_error_code(std::errc::bad_message);
            }
            if (length == 0) {
                state_ = AwaitingHeader{};
                deliver(std::string{});
                continue;
            }
            AwaitingBody body;
            body.length = length;
            body.message.reserve(std::min<std::size_t>(length, reserveStep));
            state_ = std::move(body);
            continue;
        }
        auto& body = std::get<AwaitingBody>(state_);
        const std::size_t missing = body.length - body.message.size();
        const std::size_t take = std::min(missing, bytes.size());
        if (body.message.capacity() < body.message.size() + take) {
            body.message.reserve(std::min<std::size_t>(body.length, body.message.size() + std::max(take, reserveStep)));
        }
        body.message.append(bytes.substr(0, take));
        bytes.remove_prefix(take);
        if (body.message.size() == body.length) {
            std::string complete = std::move(body.message);
            state_ = AwaitingHeader{};
            deliver(std::move(complete));
        }
    }
    return {};
}

bool GRPCFramer::atFrameBoundary() const {
    if (const auto* header = std::get_if<AwaitingHeader>(&state_)) return header->partial.empty();
    return false;
}

std::array<std::uint8_t, GRPCFramer::headerLength> GRPCFramer::header(std::uint32_t length) {
    return {0,
            static_cast<std::uint8_t>(length >> 24),
            static_cast<std::uint8_t>(length >> 16),
            static_cast<std::uint8_t>(length >> 8),
            static_cast<std::uint8_t>(length)};
}

std::string GRPCFramer::frame(std::string_view body) {
    const auto h = header(static_cast<std::uint32_t>(body.size()));
    std::string out(reinterpret_cast<const char*>(h.data()), h.size());
    out.append(body);
    return out;
}

std::uint32_t GRPCFramer::announcedLength(std::string_view header) {
    auto byte = [&](std::size_t i) { return static_cast<std::uint32_t>(static_cast<std::uint8_t>(header[i])); };
    return (byte(1) << 24) | (byte(2) << 16) | (byte(3) << 8) | byte(4);
}

}  // namespace ql
