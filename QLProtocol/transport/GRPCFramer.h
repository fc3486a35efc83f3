#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <variant>

namespace ql {

// The framing of the server's socket, in both directions: every message is one frame of
//
//     offset 0  1 byte   flag, written as 0 and ignored on reading
//     offset 1  4 bytes  body length, unsigned big-endian
//     offset 5  length   body (one serialized envelope)
//
// which is the length-prefixed message format of gRPC without its HTTP/2 layer. A body may be
// empty; a header announcing more than `maxBodyLength` bytes fails the connection with EBADMSG.
//
// The decoder is incremental: `feed` takes whatever the socket delivered (any split, from one
// byte to many frames) and hands each complete body to `deliver` exactly once, in order. It never
// reserves more memory up front than a bounded chunk, so a lying header costs nothing until the
// bytes actually arrive. This file has no dependency on the event loop so that the fuzzer can
// drive it directly.
class GRPCFramer {
public:
    static constexpr std::size_t headerLength = 5;
    static constexpr std::uint32_t maxBodyLength = 64u * 1024u * 1024u;  // 67,108,864 bytes

    struct AwaitingHeader {
        std::string partial;  // header bytes received so far (fewer than 5)
    };
    struct AwaitingBody {
        std::uint32_t length = 0;
        std::string message;  // body bytes received so far
    };
    using State = std::variant<AwaitingHeader, AwaitingBody>;

    using Deliver = std::function<void(std::string body)>;

    // Consumes `bytes`. Returns an error (std::errc::bad_message) once a header announces an
    // oversized body; the framer then stays failed and ignores further input. Bodies completed
    // before the bad header in the same chunk are still delivered.
    std::error_code feed(std::string_view bytes, const Deliver& deliver);

    // True between frames: no partial header or body is buffered.
    bool atFrameBoundary() const;
    bool failed() const { return failed_; }
    // The length announced by the header that failed the framer (0 when it has not failed).
    std::uint64_t rejectedLength() const { return rejectedLength_; }
    const State& state() const { return state_; }

    // The 5-byte header for a body of `length` bytes (the caller ensures it is within the cap).
    static std::array<std::uint8_t, headerLength> header(std::uint32_t length);
    // Header and body as one string; for tests and tools (the socket path writes the header and
    // the body as two buffers instead of copying).
    static std::string frame(std::string_view body);
    // The body length a 5-byte header announces.
    static std::uint32_t announcedLength(std::string_view header);

private:
    State state_{AwaitingHeader{}};
    bool failed_ = false;
    std::uint64_t rejectedLength_ = 0;
};

}  // namespace ql
