#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// A network share's URL taken apart so that every spelling of one share compares equal: scheme
// lower-cased ("cifs" read as "smb"), no user name or password, host lower-cased without trailing
// dots, the scheme's default port dropped (smb 445, afp 548, nfs 2049), the path percent-decoded
// with repeated and trailing slashes removed.
struct ShareAddress {
    std::string scheme;
    std::string host;
    std::string port;  // empty: the scheme's default
    std::string path;  // decoded; begins with '/' unless empty

    // nullopt when the text is not a share URL (no "scheme://", no host, a port that is not a
    // number, a scheme with characters a scheme can't have).
    static std::optional<ShareAddress> parse(std::string_view url);

    // The one text the share is stored as: the parts above, with the path re-encoded (only
    // characters outside letters, digits and "-._~!$&'()*+,;=:@/" are escaped).
    std::string canonicalText() const;
    // The last path component (the share's name); empty when there is none.
    std::string shareName() const;

    friend bool operator==(const ShareAddress&, const ShareAddress&) = default;
};

}  // namespace ql
