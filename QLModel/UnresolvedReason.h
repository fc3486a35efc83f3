#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ql {

// Why a volume reference could not be resolved. A tagged variant:
//
//   unsupportedKey      this resolver cannot resolve the key kind (the explanation says why)
//   probeFailed         a probe failed or a scan was incomplete (the sentence says which); never
//                       confused with `volumeMissing`
//   imageHostUnmounted  the volume holding a disk-image file is not mounted (its device when known)
//   notAttached         the disk image is not attached
//   volumeMissing       a complete scan found no such volume
//   imageFileMissing    the disk-image file is not at its recorded place
struct UnresolvedReason {
    struct UnsupportedKey {
        std::string explanation;
        friend bool operator==(const UnsupportedKey&, const UnsupportedKey&) = default;
    };
    struct ProbeFailed {
        std::string sentence;
        friend bool operator==(const ProbeFailed&, const ProbeFailed&) = default;
    };
    struct ImageHostUnmounted {
        std::optional<std::string> hostBSD;
        friend bool operator==(const ImageHostUnmounted&, const ImageHostUnmounted&) = default;
    };
    struct NotAttached {
        friend bool operator==(const NotAttached&, const NotAttached&) = default;
    };
    struct VolumeMissing {
        friend bool operator==(const VolumeMissing&, const VolumeMissing&) = default;
    };
    struct ImageFileMissing {
        friend bool operator==(const ImageFileMissing&, const ImageFileMissing&) = default;
    };

    enum class Kind { unsupportedKey, probeFailed, imageHostUnmounted, notAttached, volumeMissing, imageFileMissing };

    std::variant<UnsupportedKey, ProbeFailed, ImageHostUnmounted, NotAttached, VolumeMissing, ImageFileMissing> value;

    static UnresolvedReason unsupportedKey(std::string explanation) { return {UnsupportedKey{std::move(explanation)}}; }
    static UnresolvedReason probeFailed(std::string sentence) { return {ProbeFailed{std::move(sentence)}}; }
    static UnresolvedReason imageHostUnmounted(std::optional<std::string> hostBSD) {
        return {ImageHostUnmounted{std::move(hostBSD)}};
    }
    static UnresolvedReason notAttached() { return {NotAttached{}}; }
    static UnresolvedReason volumeMissing() { return {VolumeMissing{}}; }
    static UnresolvedReason imageFileMissing() { return {ImageFileMissing{}}; }

    Kind kind() const { return static_cast<Kind>(value.index()); }
    template <typename Case>
    const Case* as() const {
        return std::get_if<Case>(&value);
    }
    // "unsupportedKey", "probeFailed", ...
    std::string_view caseName() const;
    // The explanation or sentence carried by `unsupportedKey` and `probeFailed`; empty otherwise.
    std::string detail() const;
    // For logs: "probeFailed(Couldn't read every partition while looking for this one)".
    std::string description() const;

    friend bool operator==(const UnresolvedReason&, const UnresolvedReason&) = default;
};

std::ostream& operator<<(std::ostream& out, const UnresolvedReason& reason);

}  // namespace ql
