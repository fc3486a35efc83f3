#include "QLModel/ConfigStore.h"
#include "QLSupport/AtomicFile.h"
#include "QLSupport/Log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace ql {
namespace {

namespace fs = std::filesystem;

ConfigStore::Snapshot sampleSnapshot(int jobs) {
    ConfigStore::Snapshot snapshot;
    for (int i = 0; i < jobs; ++i) {
        CopyTile tile;
        tile.id = Uuid::mint();
        tile.displayName = "Job " + std::to_string(i);
        tile.source = Source{Uuid::mint(),
                             VolumeRef{VolumeKey::apmSlice(Uuid::mint()), VolumeTarget::wholeFilesystem(),
                                       VolumeInvariants{4096, PartitionMapType::apm, FilesystemFamily::hfsPlus, {}},
                                       "Old Disk", "Users", std::nullopt},
                             "Old Disk"};
        tile.destination = VolumeRef{VolumeKey::networkShare("smb://nas.local/Backups"), VolumeTarget::wholeFilesystem(),
                                     VolumeInvariants{0, PartitionMapType::network, FilesystemFamily::smb, {}},
                                     "Backups", std::nullopt, modelDate(Iso8601::parse("2026-11-21T04:39:00Z").value())};
        tile.copyScript = {"Documents only"};
        tile.schedule = Schedule{{}, {Schedule::DayOfWeek::friday}, {18, 0}, true, false};
        snapshot.tiles.push_back(tile);
        snapshot.runHistory[tile.id].push_back(RunRecord{
            Uuid::mint(), tile.id, modelDate(Iso8601::parse("2026-11-20T18:00:00Z").value()),
            modelDate(Iso8601::parse("2026-11-20T18:04:09.981Z").value()), RunRecord::Outcome::succeeded,
            "run-" + std::to_string(i) + ".log", std::nullopt});
    }
    return snapshot;
}

class ConfigStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ql-config-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root = pattern;
        file = root / "Quillo 4" / "config.json";
    }
    void TearDown() override {
        if (boundReadOnly) std::system(("umount '" + (root / "Quillo 4").string() + "' 2>/dev/null").c_str());
        ::chmod((root / "Quillo 4").c_str(), 0755);
        fs::remove_all(root);
    }
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (auto& e : fs::directory_iterator(file.parent_path())) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    void write(std::string_view bytes) {
        fs::create_directories(file.parent_path());
        ASSERT_TRUE(AtomicFile::write(file, bytes));
    }
    std::string contents() const { return AtomicFile::read(file).value(); }

    fs::path root;
    fs::path file;
    bool boundReadOnly = false;
};

TEST_F(ConfigStoreTest, AMissingFileLoadsAsTheEmptySnapshotAndCreatesNothing) {
    ConfigStore store(file);
    auto loaded = store.load();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(*loaded, ConfigStore::Snapshot::empty());
    EXPECT_EQ(loaded->schemaVersion, 1);
    EXPECT_FALSE(fs::exists(file.parent_path()));
}

TEST_F(ConfigStoreTest, SaveCreatesTheFolderAndLoadReturnsAnEqualSnapshot) {
    ConfigStore store(file);
    auto snapshot = sampleSnapshot(3);
    ASSERT_TRUE(store.save(snapshot));
    EXPECT_EQ(entries(), std::vector<std::string>{"config.json"});

    auto loaded = ConfigStore(file).load();
    ASSERT_TRUE(loaded) << loaded.error().message();
    EXPECT_EQ(*loaded, snapshot);

    // Pretty-printed, keys in lexical order, dates as whole-second ISO 8601.
    auto text = contents();
    EXPECT_EQ(text.rfind("{\n  \"runHistory\": {", 0), 0u) << text.substr(0, 80);
    EXPECT_LT(text.find("\"runHistory\""), text.find("\"schemaVersion\""));
    EXPECT_LT(text.find("\"schemaVersion\""), text.find("\"tiles\""));
    EXPECT_NE(text.find("\"endedAt\": \"2026-11-20T18:04:09Z\""), std::string::npos);

    // Saving again replaces the file whole.
    ASSERT_TRUE(store.save(ConfigStore::Snapshot::empty()));
    EXPECT_EQ(store.load().value(), ConfigStore::Snapshot::empty());
    EXPECT_EQ(entries(), std::vector<std::string>{"config.json"});
}

TEST_F(ConfigStoreTest, BadFilesAreReportedAndLeftUntouched) {
    const Json valid = toJson(sampleSnapshot(1));
    Json newer = valid;
    newer["schemaVersion"] = 2;
    newer["tiles"] = "a shape this version does not know";
    Json older = valid;
    older["schemaVersion"] = 0;
    Json damagedTile = valid;
    damagedTile["tiles"][0].erase("asBootable");

    struct Case {
        const char* name;
        std::string bytes;
        ConfigStore::StoreError::Kind kind;
        std::int64_t version;
        const char* mentions;
    };
    const Case cases[] = {
        {"newer schema", dumpJson(newer, 2), ConfigStore::StoreError::Kind::unsupportedSchema, 2, ""},
        {"older schema", dumpJson(older, 2), ConfigStore::StoreError::Kind::unsupportedSchema, 0, ""},
        {"truncated", dumpJson(valid, 2).substr(0, 200), ConfigStore::StoreError::Kind::unreadable, 0, "JSON"},
        {"empty", "", ConfigStore::StoreError::Kind::unreadable, 0, "JSON"},
        {"not an object", "[1,2,3]", ConfigStore::StoreError::Kind::unreadable, 0, "object"},
        {"tile without asBootable", dumpJson(damagedTile, 2), ConfigStore::StoreError::Kind::unreadable, 0,
         "tiles[0].asBootable"},
    };
    for (const auto& c : cases) {
        write(c.bytes);
        LogCapture log;
        auto loaded = ConfigStore(file).load();
        ASSERT_FALSE(loaded) << c.name;
        EXPECT_EQ(loaded.error().kind, c.kind) << c.name;
        EXPECT_EQ(loaded.error().version, c.version) << c.name;
        EXPECT_NE(loaded.error().description.find(c.mentions), std::string::npos)
            << c.name << ": " << loaded.error().description;
        EXPECT_EQ(contents(), c.bytes) << c.name;
        EXPECT_TRUE(log.contains("[ConfigStore] load")) << c.name;
    }
    write(dumpJson(newer));
    EXPECT_EQ(ConfigStore(file).load().error().message(),
              "The configuration file uses schema version 2, which this version of Quillo can’t read.");
}

TEST_F(ConfigStoreTest, AnUnreadableFileIsUnreadable) {
    fs::create_directories(file);  // a directory where the file should be
    auto loaded = ConfigStore(file).load();
    ASSERT_FALSE(loaded);
    EXPECT_EQ(loaded.error().kind, ConfigStore::StoreError::Kind::unreadable);
    EXPECT_NE(loaded.error().description.find("config.json"), std::string::npos);
}

TEST_F(ConfigStoreTest, AFailedReplaceRemovesTheTemporaryFile) {
    // A non-empty directory in the file's place: writing the temporary file works, replacing fails.
    fs::create_directories(file / "occupied");
    ConfigStore store(file);
    auto saved = store.save(sampleSnapshot(1));
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error().kind, ConfigStore::StoreError::Kind::unwritable);
    EXPECT_EQ(entries(), std::vector<std::string>{"config.json"});
    EXPECT_TRUE(fs::is_directory(file / "occupied"));
}

TEST_F(ConfigStoreTest, ASaveIntoAReadOnlyFolderKeepsThePreviousFileAndLeavesNoTemporaryFile) {
    ConfigStore store(file);
    auto previous = sampleSnapshot(2);
    ASSERT_TRUE(store.save(previous));
    const auto previousBytes = contents();
    const auto folder = file.parent_path();
    // Root writes through directory permissions, so as root the folder becomes a read-only bind
    // mount instead.
    if (::geteuid() == 0) {
        std::string cmd = "mount --bind '" + folder.string() + "' '" + folder.string() + "' && mount -o remount,bind,ro '" +
                          folder.string() + "' '" + folder.string() + "'";
        if (std::system(cmd.c_str()) != 0) {
            std::system(("umount '" + folder.string() + "' 2>/dev/null").c_str());
            GTEST_SKIP() << "running as root and a read-only bind mount is not possible here";
        }
        boundReadOnly = true;
    } else {
        ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);
    }
    LogCapture log;
    auto saved = store.save(sampleSnapshot(5));
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error().kind, ConfigStore::StoreError::Kind::unwritable);
    EXPECT_FALSE(saved.error().description.empty());
    EXPECT_TRUE(log.contains("[ConfigStore] save failed"));
    EXPECT_EQ(contents(), previousBytes);
    EXPECT_EQ(entries(), std::vector<std::string>{"config.json"});
    EXPECT_EQ(store.load().value(), previous);
}

TEST_F(ConfigStoreTest, ConcurrentLoadsAndSavesOnOneStoreNeverSeeAPartialFile) {
    ConfigStore store(file);
    const auto small = sampleSnapshot(1);
    const auto large = sampleSnapshot(40);
    ASSERT_TRUE(store.save(small));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                if (t % 2 == 0) {
                    if (!store.save(i % 2 ? small : large)) ++failures;
                } else {
                    auto loaded = store.load();
                    if (!loaded || (*loaded != small && *loaded != large)) ++failures;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(entries(), std::vector<std::string>{"config.json"});
}

TEST(ConfigStoreDefaultLocation, FollowsXdgConfigHomeAndHome) {
#if defined(__linux__)
    const char* savedXdg = std::getenv("XDG_CONFIG_HOME");
    const std::string savedXdgValue = savedXdg ? savedXdg : "";
    const char* savedHome = std::getenv("HOME");
    const std::string savedHomeValue = savedHome ? savedHome : "";

    ::setenv("HOME", "/home/ann", 1);
    ::setenv("XDG_CONFIG_HOME", "/srv/ann-config", 1);
    EXPECT_EQ(ConfigStore::defaultLocation(), fs::path("/srv/ann-config/Quillo 4/config.json"));
    ::unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(ConfigStore::defaultLocation(), fs::path("/home/ann/.config/Quillo 4/config.json"));

    if (savedXdg) ::setenv("XDG_CONFIG_HOME", savedXdgValue.c_str(), 1);
    if (savedHome) ::setenv("HOME", savedHomeValue.c_str(), 1); else ::unsetenv("HOME");
#else
    EXPECT_EQ(ConfigStore::defaultLocation().filename(), "config.json");
    EXPECT_EQ(ConfigStore::defaultLocation().parent_path().filename(), "Quillo 4");
#endif
}

}  // namespace
}  // namespace ql
