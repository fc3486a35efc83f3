#pragma once

#include "QLModel/Resolution.h"
#include "QLModel/VolumeResolver.h"
#include "QLProtocol/proto/tiles.pb.h"

#include <asio.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// Completes a job's binding from the live volume it names ("enrichment"): partition GUID,
// volume UUID, size, partition map, family, serial, display name and device. A binding whose
// volume is away (a drive not attached, a share not mounted, an image whose host is away) or
// that cannot be read passes through as sent, to be healed later; enrichment never fails.
class TileBindingEnricher {
public:
    using Binding = ql4::transport::v1::VolumeBinding;

    enum class Side { source, destination };
    // Why a binding passed through unenriched.
    enum class Miss { none, notAttached, notMounted, notReachable, malformed, failed };

    struct Outcome {
        Binding binding;  // enriched, or as sent
        Miss miss = Miss::none;
        // The verdict on the binding as it now stands, when it could be resolved.
        std::optional<Resolution> resolution;
        bool enriched() const { return miss == Miss::none; }
    };

    explicit TileBindingEnricher(VolumeResolver& resolver) : resolver_(resolver) {}

    asio::awaitable<Outcome> enrich(std::string tileID, Side side, Binding binding);

    // The verdict on a stored binding: unresolved (not attached) when it has no key yet,
    // nullopt for an empty side.
    asio::awaitable<std::optional<Resolution>> resolve(Binding binding);

    // The binding has been completed from a live volume at least once.
    static bool isEnriched(const Binding& binding);
    static std::string_view sideName(Side side) { return side == Side::source ? "source" : "destination"; }
    // "Macintosh HD - Data" → "Macintosh HD": how the Data volume of a system is shown.
    static std::string normalizedDataName(const std::string& name);

private:
    asio::awaitable<Outcome> enrichLocal(std::string tileID, Side side, Binding binding);
    asio::awaitable<Outcome> enrichNetwork(Binding binding);
    asio::awaitable<Outcome> enrichDiskImage(Binding binding);

    VolumeResolver& resolver_;
};

}  // namespace ql
