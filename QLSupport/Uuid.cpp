#include "QLSupport/Uuid.h"

#include <openssl/rand.h>

#include <fmt/format.h>

#include <random>

namespace ql {
namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

Uuid Uuid::mint() {
    Bytes b{};
    if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) {
        std::random_device rd;
        for (auto& byte : b) byte = static_cast<std::uint8_t>(rd());
    }
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);
    return Uuid(b);
}

tl::expected<Uuid, std::string> Uuid::parse(std::string_view text) {
    if (text.size() != 36) {
        return tl::unexpected(fmt::format("not a UUID: \"{}\" (expected 36 characters)", text));
    }
    Bytes b{};
    std::size_t byteIndex = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return tl::unexpected(fmt::format("not a UUID: \"{}\"", text));
            ++i;
            continue;
        }
        int hi = hexValue(text[i]);
        int lo = i + 1 < text.size() ? hexValue(text[i + 1]) : -1;
        if (hi < 0 || lo < 0) return tl::unexpected(fmt::format("not a UUID: \"{}\"", text));
        b[byteIndex++] = static_cast<std::uint8_t>(hi * 16 + lo);
        i += 2;
    }
    return Uuid(b);
}

std::string Uuid::text() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(digits[bytes_[i] >> 4]);
        out.push_back(digits[bytes_[i] & 0x0F]);
    }
    return out;
}

bool Uuid::isNil() const {
    for (auto b : bytes_) {
        if (b != 0) return false;
    }
    return true;
}

std::string UUIDCodec::DecodeError::message() const {
    return fmt::format("a UUID needs 16 bytes, got {}", count);
}

tl::expected<Uuid, UUIDCodec::DecodeError> UUIDCodec::decode(std::string_view bytes) {
    if (bytes.size() != 16) return tl::unexpected(DecodeError{DecodeError::Kind::wrongLength, bytes.size()});
    Uuid::Bytes b{};
    for (std::size_t i = 0; i < 16; ++i) b[i] = static_cast<std::uint8_t>(bytes[i]);
    return Uuid(b);
}

std::string UUIDCodec::encode(const Uuid& uuid) {
    const auto& b = uuid.bytes();
    return std::string(reinterpret_cast<const char*>(b.data()), b.size());
}

}  // namespace ql
