#pragma once

#include <tl/expected.hpp>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace ql {

// A UUID: 16 bytes, written in canonical upper-case text
// ("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"). Parsing is strict: 8-4-4-4-12 hexadecimal digits
// of either case, nothing else.
class Uuid {
public:
    using Bytes = std::array<std::uint8_t, 16>;

    constexpr Uuid() = default;
    explicit constexpr Uuid(const Bytes& bytes) : bytes_(bytes) {}

    // A fresh random (version 4) UUID.
    static Uuid mint();
    static tl::expected<Uuid, std::string> parse(std::string_view text);
    static bool isValid(std::string_view text) { return parse(text).has_value(); }

    std::string text() const;
    const Bytes& bytes() const { return bytes_; }
    bool isNil() const;

    friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
    Bytes bytes_{};
};

// The 16-byte wire form of a UUID.
struct UUIDCodec {
    struct DecodeError {
        enum class Kind { wrongLength };
        Kind kind = Kind::wrongLength;
        std::size_t count = 0;
        std::string message() const;
        friend bool operator==(const DecodeError&, const DecodeError&) = default;
    };

    static tl::expected<Uuid, DecodeError> decode(std::string_view bytes);
    static std::string encode(const Uuid& uuid);
};

}  // namespace ql

template <>
struct std::hash<ql::Uuid> {
    std::size_t operator()(const ql::Uuid& u) const noexcept {
        std::size_t h = 0;
        for (auto b : u.bytes()) h = h * 131 + b;
        return h;
    }
};
