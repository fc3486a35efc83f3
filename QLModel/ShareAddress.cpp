#include "QLModel/ShareAddress.h"

#include <cctype>
#include <cstring>

namespace ql {
namespace {

std::string lowercased(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentDecoded(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            int hi = hexValue(text[i + 1]);
            int lo = hexValue(text[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out.push_back(static_cast<char>(hi * 16 + lo));
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

std::string percentEncodedPath(std::string_view path) {
    static constexpr const char* kept = "-._~!$&'()*+,;=:@/";
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    for (char c : path) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) || (c != '\0' && std::strchr(kept, c) != nullptr)) {
            out.push_back(c);
        } else {
            out.push_back('%');
            out.push_back(digits[u >> 4]);
            out.push_back(digits[u & 0xF]);
        }
    }
    return out;
}

}  // namespace

std::optional<ShareAddress> ShareAddress::parse(std::string_view url) {
    auto separator = url.find("://");
    if (separator == std::string_view::npos || separator == 0) return std::nullopt;
    ShareAddress out;
    out.scheme = lowercased(url.substr(0, separator));
    for (char c : out.scheme) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return std::nullopt;
    }
    if (out.scheme == "cifs") out.scheme = "smb";
    auto rest = url.substr(separator + 3);
    auto slash = rest.find('/');
    auto authority = rest.substr(0, slash);
    auto path = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
    if (auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
    if (!authority.empty() && authority.front() == '[') {
        auto close = authority.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        out.host = lowercased(authority.substr(0, close + 1));
        auto after = authority.substr(close + 1);
        if (!after.empty() && after.front() == ':') out.port = std::string(after.substr(1));
    } else {
        auto colon = authority.rfind(':');
        if (colon != std::string_view::npos) {
            out.port = std::string(authority.substr(colon + 1));
            authority = authority.substr(0, colon);
        }
        out.host = lowercased(percentDecoded(authority));
    }
    while (!out.host.empty() && out.host.back() == '.') out.host.pop_back();
    if (out.host.empty()) return std::nullopt;
    for (char c : out.port) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    }
    if ((out.scheme == "smb" && out.port == "445") || (out.scheme == "afp" && out.port == "548") ||
        (out.scheme == "nfs" && out.port == "2049")) {
        out.port.clear();
    }
    for (char c : percentDecoded(path)) {
        if (c == '/' && !out.path.empty() && out.path.back() == '/') continue;
        out.path.push_back(c);
    }
    while (!out.path.empty() && out.path.back() == '/') out.path.pop_back();
    return out;
}


std::string ShareAddress::canonicalText() const {
    std::string out = scheme + "://" + host;
    if (!port.empty()) out += ":" + port;
    out += percentEncodedPath(path);
    return out;
}

std::string ShareAddress::shareName() const {
    if (path.empty()) return {};
    return path.substr(path.rfind('/') + 1);
}

}  // namespace ql
