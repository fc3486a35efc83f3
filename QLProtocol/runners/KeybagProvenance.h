#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace ql {

// How the copy engine tells that the user's data-protection keybag is locked, so that it can
// defer files it cannot read instead of failing on them.
//
//   sentinel   a file protected with data-protection class A that the engine probes; `uid` and
//              `home` are the console user's
//   noKeybag   there is no user keybag to watch (no console user, or no such capability)
struct KeybagProvenance {
    struct Sentinel {
        std::string path;
        std::uint32_t uid = 0;
        std::string home;
        friend bool operator==(const Sentinel&, const Sentinel&) = default;
    };
    struct NoKeybag {
        friend bool operator==(const NoKeybag&, const NoKeybag&) = default;
    };

    std::variant<Sentinel, NoKeybag> value;

    static KeybagProvenance sentinel(std::string path, std::uint32_t uid, std::string home);
    static KeybagProvenance noKeybag();

    // The sentinel, or nullptr for `noKeybag`.
    const Sentinel* asSentinel() const { return std::get_if<Sentinel>(&value); }
    bool isNoKeybag() const { return std::holds_alternative<NoKeybag>(value); }

    // "sentinel(path=…, uid=501, home=…)" or "noKeybag", for log lines.
    std::string describe() const;

    friend bool operator==(const KeybagProvenance&, const KeybagProvenance&) = default;
};

}  // namespace ql
