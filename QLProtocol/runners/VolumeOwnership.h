#pragma once

#include <asio.hpp>
#include <tl/expected.hpp>

#include <optional>
#include <string>

namespace ql {

// A volume's "honour file owners" setting. Some filesystems can be told to ignore owners (every
// file then appears to belong to whoever looks), and some keep no owners at all; a faithful
// copy needs owners honoured on both sides for the run, and the setting put back afterwards.
class VolumeOwnership {
public:
    virtual ~VolumeOwnership() = default;

    // Whether the volume mounted at `mountPath` honours file owners now; nothing when that
    // can't be read.
    virtual asio::awaitable<std::optional<bool>> ownersEnabled(std::string mountPath) = 0;

    // Turns owners on or off; the error is a sentence saying why it could not be done.
    virtual asio::awaitable<tl::expected<void, std::string>> setOwnersEnabled(std::string mountPath, bool enabled) = 0;
};

}  // namespace ql
