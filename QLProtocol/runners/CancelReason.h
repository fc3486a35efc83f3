#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ql {

// Why a file-copy run is being stopped. The user's own cancel ends the run with a `cancelled`
// terminal; every other reason comes from a watcher that saw the run's ground move under it and
// ends the run as `failed` with the reason's sentence.
//
//   userRequested                the user (or a client on their behalf) cancelled
//   sourceRemoved                the source disappeared during the copy
//   destinationRemoved           the destination disappeared during the copy
//   sourceIdentityChanged        a different volume now sits where the source was
//   destinationIdentityChanged   a different volume now sits where the destination was
//   imageHostDisconnected(host)  the drive or server holding the destination disk image went away
//   imageHostOutOfSpace(host)    the drive or server holding the disk image filled up
struct CancelReason {
    struct UserRequested {
        friend bool operator==(const UserRequested&, const UserRequested&) = default;
    };
    struct SourceRemoved {
        friend bool operator==(const SourceRemoved&, const SourceRemoved&) = default;
    };
    struct DestinationRemoved {
        friend bool operator==(const DestinationRemoved&, const DestinationRemoved&) = default;
    };
    struct SourceIdentityChanged {
        friend bool operator==(const SourceIdentityChanged&, const SourceIdentityChanged&) = default;
    };
    struct DestinationIdentityChanged {
        friend bool operator==(const DestinationIdentityChanged&, const DestinationIdentityChanged&) = default;
    };
    struct ImageHostDisconnected {
        std::string hostName;
        friend bool operator==(const ImageHostDisconnected&, const ImageHostDisconnected&) = default;
    };
    struct ImageHostOutOfSpace {
        std::string hostName;
        friend bool operator==(const ImageHostOutOfSpace&, const ImageHostOutOfSpace&) = default;
    };

    std::variant<UserRequested, SourceRemoved, DestinationRemoved, SourceIdentityChanged, DestinationIdentityChanged,
                 ImageHostDisconnected, ImageHostOutOfSpace>
        value;

    static CancelReason userRequested() { return {UserRequested{}}; }
    static CancelReason sourceRemoved() { return {SourceRemoved{}}; }
    static CancelReason destinationRemoved() { return {DestinationRemoved{}}; }
    static CancelReason sourceIdentityChanged() { return {SourceIdentityChanged{}}; }
    static CancelReason destinationIdentityChanged() { return {DestinationIdentityChanged{}}; }
    static CancelReason imageHostDisconnected(std::string hostName) { return {ImageHostDisconnected{std::move(hostName)}}; }
    static CancelReason imageHostOutOfSpace(std::string hostName) { return {ImageHostOutOfSpace{std::move(hostName)}}; }

    bool isUserRequested() const { return std::holds_alternative<UserRequested>(value); }

    // The sentence of the failed terminal this reason ends the run with; nothing for
    // `userRequested`, which ends with a cancelled terminal instead.
    std::optional<std::string> message() const;

    // "userRequested", "sourceRemoved", … "imageHostDisconnected".
    std::string_view caseName() const;
    // For log lines: the case name, with the host for the disk-image cases
    // ("imageHostDisconnected(Backups NAS)").
    std::string description() const;

    friend bool operator==(const CancelReason&, const CancelReason&) = default;
};

}  // namespace ql
