#include "QLProtocol/runners/CancelReason.h"

#include "QLModel/Overloaded.h"

#include <fmt/format.h>

namespace ql {

std::optional<std::string> CancelReason::message() const {
    return std::visit(
        Overloaded{
            [](const UserRequested&) -> std::optional<std::string> { return std::nullopt; },
            [](const SourceRemoved&) -> std::optional<std::string> {
                return "The source was disconnected during the copy. Quillo stopped immediately to protect your "
                       "backup.";
            },
            [](const DestinationRemoved&) -> std::optional<std::string> {
                return "The destination was disconnected during the copy. Quillo stopped immediately to protect your "
                       "data.";
            },
            [](const SourceIdentityChanged&) -> std::optional<std::string> {
                return "A different volume replaced the source during the copy. Quillo stopped immediately to avoid "
                       "copying from the wrong drive.";
            },
            [](const DestinationIdentityChanged&) -> std::optional<std::string> {
                return "A different volume replaced the destination during the copy. Quillo stopped immediately to "
                       "avoid writing to the wrong drive.";
            },
            [](const ImageHostDisconnected& c) -> std::optional<std::string> {
                return fmt::format(
                    "“{}” disconnected while the backup was writing to the disk image. Quillo stopped the copy "
                    "immediately. Reconnect it, then run the backup again. If the image doesn't open, check it in "
                    "Disk Utility with Disk First Aid.",
                    c.hostName);
            },
            [](const ImageHostOutOfSpace& c) -> std::optional<std::string> {
                return fmt::format(
                    "“{}” ran out of space, so the backup stopped. The disk image itself isn't full: the storage "
                    "holding it is. Free up space, then run the backup again.",
                    c.hostName);
            },
        },
        value);
}

std::string_view CancelReason::caseName() const {
    return std::visit(Overloaded{
                          [](const UserRequested&) { return std::string_view("userRequested"); },
                          [](const SourceRemoved&) { return std::string_view("sourceRemoved"); },
                          [](const DestinationRemoved&) { return std::string_view("destinationRemoved"); },
                          [](const SourceIdentityChanged&) { return std::string_view("sourceIdentityChanged"); },
                          [](const DestinationIdentityChanged&) {
                              return std::string_view("destinationIdentityChanged");
                          },
                          [](const ImageHostDisconnected&) { return std::string_view("imageHostDisconnected"); },
                          [](const ImageHostOutOfSpace&) { return std::string_view("imageHostOutOfSpace"); },
                      },
                      value);
}

std::string CancelReason::description() const {
    if (auto c = std::get_if<ImageHostDisconnected>(&value)) return fmt::format("{}({})", caseName(), c->hostName);
    if (auto c = std::get_if<ImageHostOutOfSpace>(&value)) return fmt::format("{}({})", caseName(), c->hostName);
    return std::string(caseName());
}

}  // namespace ql
