#pragma once

#include "QLModel/CurrentVolumeState.h"
#include "QLModel/InvariantMismatch.h"
#include "QLModel/UnresolvedReason.h"

#include <iosfwd>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ql {

// The resolver's verdict on a volume reference:
//
//   ok          found, and every recorded fact still holds
//   suspicious  found, but at least one recorded fact differs; a run must not proceed silently
//   unresolved  not found, or the search could not be completed
//
// Nothing writes to a destination whose resolution is not `ok`.
struct Resolution {
    struct Ok {
        CurrentVolumeState state;
        friend bool operator==(const Ok&, const Ok&) = default;
    };
    struct Suspicious {
        CurrentVolumeState state;
        std::vector<InvariantMismatch> mismatches;
        friend bool operator==(const Suspicious&, const Suspicious&) = default;
    };
    struct Unresolved {
        UnresolvedReason reason;
        friend bool operator==(const Unresolved&, const Unresolved&) = default;
    };
    enum class Kind { ok, suspicious, unresolved };

    std::variant<Ok, Suspicious, Unresolved> value;

    static Resolution ok(CurrentVolumeState state) { return {Ok{std::move(state)}}; }
    static Resolution suspicious(CurrentVolumeState state, std::vector<InvariantMismatch> mismatches) {
        return {Suspicious{std::move(state), std::move(mismatches)}};
    }
    static Resolution unresolved(UnresolvedReason reason) { return {Unresolved{std::move(reason)}}; }

    Kind kind() const { return static_cast<Kind>(value.index()); }
    bool isOk() const { return kind() == Kind::ok; }
    template <typename Case>
    const Case* as() const {
        return std::get_if<Case>(&value);
    }
    // The state found (`ok` and `suspicious`); nullptr when unresolved.
    const CurrentVolumeState* state() const;
    // The mismatches of a `suspicious` verdict; empty otherwise.
    const std::vector<InvariantMismatch>& mismatches() const;
    // The reason of an `unresolved` verdict; nullptr otherwise.
    const UnresolvedReason* reason() const;

    std::string_view caseName() const;
    // For logs: "ok(disk2s2)", "suspicious(disk2s2; partitionSizeBytes: expected 1, found 2)",
    // "unresolved(volumeMissing)".
    std::string description() const;

    friend bool operator==(const Resolution&, const Resolution&) = default;
};

std::ostream& operator<<(std::ostream& out, const Resolution& resolution);

}  // namespace ql
