#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// The one text a network share's URL is stored as, so that every spelling of one share gives
// the same binding: scheme lower-cased ("cifs" read as "smb"), no user name or password, host
// lower-cased without trailing dots, the scheme's default port dropped (smb 445, afp 548, nfs
// 2049), the path percent-decoded, with repeated and trailing slashes removed and then
// re-encoded (only characters outside letters, digits, "-._~!$&'()*+,;=:@/" are escaped).
// The same rules the volume resolver uses to compare shares.
struct CanonicalShareURL {
    // nullopt when the text is not a share URL (no "scheme://", or no host).
    static std::optional<std::string> of(std::string_view url);
    // The host part of a canonical URL (for `host_display_name`); empty when malformed.
    static std::string host(std::string_view url);
    // The last path component, percent-decoded (the share's name); empty when there is none.
    static std::string shareName(std::string_view url);
};

}  // namespace ql
