#include "QLProtocol/server/PlatformIdentityProbe.h"
#include "QLProtocol/server/RunFinishedNotifier.h"
#include "QLProtocol/server/ServerPaths.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace ql {
namespace {

TEST(ServerPaths, LinuxStateAndLogFoldersFollowTheUserAndTheOverride) {
    struct Case {
        const char* name;
        ServerPaths::Environment environment;
        std::optional<std::filesystem::path> override;
        const char* state;
        const char* logs;
    };
    const Case cases[] = {
        {"root", {true, "/home/x/.state", "/root"}, std::nullopt, "/var/lib/quillo4", "/var/log/quillo4"},
        {"user with XDG_STATE_HOME", {false, "/home/ann/.st", "/home/ann"}, std::nullopt, "/home/ann/.st/quillo4",
         "/home/ann/.st/quillo4/logs"},
        {"user without XDG_STATE_HOME", {false, std::nullopt, "/home/ann"}, std::nullopt,
         "/home/ann/.local/state/quillo4", "/home/ann/.local/state/quillo4/logs"},
        {"relative XDG_STATE_HOME is ignored", {false, "rel/state", "/home/ann"}, std::nullopt,
         "/home/ann/.local/state/quillo4", "/home/ann/.local/state/quillo4/logs"},
        {"override beats root", {true, std::nullopt, "/root"}, "/tmp/qs", "/tmp/qs", "/tmp/qs/logs"},
        {"override beats user", {false, "/x", "/home/ann"}, "/tmp/qs", "/tmp/qs", "/tmp/qs/logs"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto paths = c.override ? ServerPaths::forPlatform(c.override, c.environment)
                                : ServerPaths::linuxDefaults(c.environment);
        EXPECT_EQ(paths.stateDirectory(), c.state);
        EXPECT_EQ(paths.logDirectory(), c.logs);
        EXPECT_EQ(paths.tilesFile(), std::filesystem::path(c.state) / "tiles.json");
    }
}

TEST(ServerPaths, MacFoldersAndFileNames) {
    auto paths = ServerPaths::darwinDefaults();
    EXPECT_EQ(paths.stateDirectory(), "/Library/Application Support/Quillo4");
    EXPECT_EQ(paths.logDirectory(), "/Library/Logs/Quillo 4");
    EXPECT_EQ(paths.generalDiagnostics(), "/Library/Logs/Quillo 4/general.diag.json");
    EXPECT_EQ(paths.schedulerLog(), "/Library/Logs/Quillo 4/scheduler.log");
    EXPECT_EQ(paths.journalMap(), "/Library/Application Support/Quillo4/journal-map.json");
    EXPECT_EQ(paths.keybagMemo(), "/Library/Application Support/Quillo4/keybag-dp-supported");
    EXPECT_EQ(paths.fsEventsStateDirectory(), "/Library/Application Support/Quillo4/FSEventsState");
    EXPECT_EQ(paths.previewsDatabase(), "/Library/Application Support/Quillo4/previews.db");
}

TEST(PlatformIdentity, LinuxIdentityFilesAreParsedStrictly) {
    struct Case {
        const char* text;
        std::optional<std::string> machineID;
        std::optional<std::string> productUUID;
    };
    const Case cases[] = {
        {"0123456789abcdef0123456789abcdef\n", "01234567-89AB-CDEF-0123-456789ABCDEF", std::nullopt},
        {"4c4c4544-0042-3510-8052-b4c04f384d32\n", std::nullopt, "4C4C4544-0042-3510-8052-B4C04F384D32"},
        {"00000000000000000000000000000000\n", std::nullopt, std::nullopt},
        {"00000000-0000-0000-0000-000000000000", std::nullopt, std::nullopt},
        {"FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF", std::nullopt, std::nullopt},
        {"0123456789abcdef0123456789abcde", std::nullopt, std::nullopt},   // 31 digits
        {"0123456789abcdef0123456789abcdeg", std::nullopt, std::nullopt},  // not hexadecimal
        {"", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(LinuxIdentityFiles::machineIDFromText(c.text), c.machineID);
        EXPECT_EQ(LinuxIdentityFiles::productUUIDFromText(c.text), c.productUUID);
    }
}

// The D-Bus route: which bus, which tool, and the exact arguments, without a bus.
TEST(RunFinishedNotifier, DbusSignalGoesToTheRightBusOrIsSkippedWithAReason) {
    FakeShellRunner runner;
    struct Case {
        const char* name;
        bool systemBus;
        std::map<std::string, std::string> environment;
        std::set<std::string> files;
        std::optional<std::string> busFlag;
        const char* whyNot;
    };
    const Case cases[] = {
        {"root with a system bus socket", true, {{"PATH", "/usr/local/bin:/usr/bin"}},
         {"/usr/bin/dbus-send", "/run/dbus/system_bus_socket"}, "--system", ""},
        {"root with a system bus address", true, {{"PATH", "/usr/bin"}, {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/x"}},
         {"/usr/bin/dbus-send"}, "--system", ""},
        {"root without a bus", true, {{"PATH", "/usr/bin"}}, {"/usr/bin/dbus-send"}, std::nullopt,
         "no system bus is reachable"},
        {"user with a session bus", false, {{"PATH", "/usr/bin"}, {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/s"}},
         {"/usr/bin/dbus-send"}, "--session", ""},
        {"user without a session bus", false, {{"PATH", "/usr/bin"}}, {"/usr/bin/dbus-send", "/run/dbus/system_bus_socket"},
         std::nullopt, "no session bus is reachable"},
        {"no dbus-send", true, {{"PATH", "/usr/bin"}}, {"/run/dbus/system_bus_socket"}, std::nullopt,
         "dbus-send is not installed"},
    };
    RunFinishedNotice notice{"6B1F0A4E-1111-2222-3333-444455556666", "failed", true, 1700000000123456789,
                             std::string("destination_not_connected")};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LiveRunFinishedNotifier::Options options;
        options.systemBus = c.systemBus;
        options.environment = [&c](std::string_view name) -> std::optional<std::string> {
            auto it = c.environment.find(std::string(name));
            if (it == c.environment.end()) return std::nullopt;
            return it->second;
        };
        options.pathExists = [&c](const std::string& path) { return c.files.count(path) != 0; };
        LiveRunFinishedNotifier notifier(runner, options);
        std::string whyNot;
        auto command = notifier.dbusCommand(notice, whyNot);
        ASSERT_EQ(command.has_value(), c.busFlag.has_value());
        if (!command) {
            EXPECT_EQ(whyNot, c.whyNot);
            continue;
        }
        EXPECT_EQ(command->executable, "/usr/bin/dbus-send");
        EXPECT_EQ(command->arguments,
                  (std::vector<std::string>{*c.busFlag, "--type=signal", "/com/ortolan/Quillo4",
                                            "com.ortolan.Quillo4.runFinished",
                                            "dict:string:string:tile_id,6B1F0A4E-1111-2222-3333-444455556666,"
                                            "version,1,outcome,failed,is_catchup,true,"
                                            "ended_at_unix_nanos,1700000000123456789,"
                                            "reason,destination_not_connected"}));
    }
}

}  // namespace
}  // namespace ql
