#include "QLModel/ConfigStore.h"
#include "QLModel/CopyTile.h"
#include "QLModel/RunRecord.h"

#include <gtest/gtest.h>

#include <functional>

namespace ql {
namespace {

Uuid uuid(std::string_view text) { return Uuid::parse(text).value(); }
ModelDate date(const char* iso) { return modelDate(Iso8601::parse(iso).value()); }

VolumeRef volume(const char* name, Uuid id) {
    return VolumeRef{VolumeKey::gptPartitionGUID(id), VolumeTarget::wholeFilesystem(),
                     VolumeInvariants{1'000'000'000, PartitionMapType::gpt, FilesystemFamily::apfsContainer,
                                      HardwareSerial{"S3Z9NB0K"}},
                     name, std::nullopt, date("2026-11-20T22:10:05Z")};
}

CopyTile sampleTile() {
    CopyTile tile;
    tile.id = uuid("11111111-2222-4333-8444-555555555555");
    tile.displayName = "Macintosh HD → Backup";
    tile.source = Source{uuid("21111111-2222-4333-8444-555555555555"), volume("Macintosh HD", Uuid::mint()),
                         "Macintosh HD"};
    tile.source.ref.target = VolumeTarget::apfsVolumeGroup();
    tile.destination = volume("Backup", Uuid::mint());
    tile.destination.subpath = "Clones/Mac";
    tile.copyScript = {"Everything"};
    tile.duringCopy = CopyTile::DuringCopyMethod::copyDifferent;
    tile.advanced = {"/Users/ann/before.sh", std::nullopt};
    tile.onSuccess = CopyTile::OnSuccessAction::setTargetAsStartupDisk;
    tile.schedule = Schedule{{Schedule::WeekOfMonth::first}, {Schedule::DayOfWeek::sunday}, {3, 15}, true, true};
    tile.asBootable = true;
    return tile;
}

RunRecord sampleRun(const CopyTile& tile) {
    return RunRecord{uuid("31111111-2222-4333-8444-555555555555"), tile.id, date("2026-11-21T04:39:00Z"),
                     date("2026-11-21T05:02:41Z"), RunRecord::Outcome::wrongDrive, "2026-11-21/run.log",
                     "Copied 1,204 files"};
}

TEST(CopyTileJson, EveryRecordRoundTripsEqual) {
    auto tile = sampleTile();
    auto decodedTile = fromJsonText<CopyTile>(dumpJson(toJson(tile), 2));
    ASSERT_TRUE(decodedTile) << decodedTile.error().description();
    EXPECT_EQ(*decodedTile, tile);

    auto bare = tile;
    bare.schedule.reset();
    bare.advanced = {};
    auto json = toJson(bare);
    EXPECT_FALSE(json.contains("schedule"));
    EXPECT_EQ(json["advanced"], Json::object());
    EXPECT_EQ(fromJson<CopyTile>(json).value(), bare);

    for (auto outcome : {RunRecord::Outcome::succeeded, RunRecord::Outcome::failed, RunRecord::Outcome::cancelled,
                         RunRecord::Outcome::wrongDrive, RunRecord::Outcome::destinationNotConnected}) {
        auto run = sampleRun(tile);
        run.outcome = outcome;
        EXPECT_EQ(fromJsonText<RunRecord>(dumpJson(toJson(run))).value(), run) << caseName(outcome);
    }
    auto quiet = sampleRun(tile);
    quiet.summary.reset();
    EXPECT_FALSE(toJson(quiet).contains("summary"));
    EXPECT_EQ(fromJson<RunRecord>(toJson(quiet)).value(), quiet);
    EXPECT_EQ(toJson(quiet)["startedAt"], "2026-11-21T04:39:00Z");
}

TEST(CopyTileJson, EnumerationsAreWrittenByCaseName) {
    auto json = toJson(sampleTile());
    EXPECT_EQ(json["duringCopy"], "copyDifferent");
    EXPECT_EQ(json["onSuccess"], "setTargetAsStartupDisk");
    EXPECT_EQ(json["copyScript"], (Json{{"name", "Everything"}}));
    EXPECT_EQ(json["id"], "11111111-2222-4333-8444-555555555555");
    const std::pair<CopyTile::DuringCopyMethod, const char*> labels[] = {
        {CopyTile::DuringCopyMethod::smartUpdate, "Smart Update"},
        {CopyTile::DuringCopyMethod::eraseThenCopy, "Erase, then copy"},
        {CopyTile::DuringCopyMethod::copyNewer, "Copy Newer"},
        {CopyTile::DuringCopyMethod::copyDifferent, "Copy Different"},
    };
    for (auto [method, text] : labels) {
        EXPECT_EQ(label(method), text);
        EXPECT_EQ(fromJson<CopyTile::DuringCopyMethod>(toJson(method)).value(), method);
    }
    for (auto action : {CopyTile::OnSuccessAction::none, CopyTile::OnSuccessAction::restartFromTarget,
                        CopyTile::OnSuccessAction::setTargetAsStartupDisk, CopyTile::OnSuccessAction::restart,
                        CopyTile::OnSuccessAction::shutdown, CopyTile::OnSuccessAction::sleep,
                        CopyTile::OnSuccessAction::quitQuillo}) {
        EXPECT_EQ(fromJson<CopyTile::OnSuccessAction>(toJson(action)).value(), action);
    }
}

TEST(CopyTileJson, MissingOrMistypedRequiredFieldsFailTheWholeRecord) {
    const Json good = toJson(sampleTile());
    struct Case {
        const char* name;
        std::function<void(Json&)> damage;
        ModelDecodeError::Kind kind;
        const char* path;
    };
    const Case cases[] = {
        {"no asBootable", [](Json& j) { j.erase("asBootable"); }, ModelDecodeError::Kind::missingField, "asBootable"},
        {"asBootable as text", [](Json& j) { j["asBootable"] = "true"; }, ModelDecodeError::Kind::typeMismatch,
         "asBootable"},
        {"unknown method", [](Json& j) { j["duringCopy"] = "mirror"; }, ModelDecodeError::Kind::unknownCase,
         "duringCopy"},
        {"unknown action", [](Json& j) { j["onSuccess"] = "ejectDestination"; }, ModelDecodeError::Kind::unknownCase,
         "onSuccess"},
        {"no advanced", [](Json& j) { j.erase("advanced"); }, ModelDecodeError::Kind::missingField, "advanced"},
        {"hook not text", [](Json& j) { j["advanced"]["afterCopyScriptPath"] = 3; },
         ModelDecodeError::Kind::typeMismatch, "advanced.afterCopyScriptPath"},
        {"bad id", [](Json& j) { j["id"] = "job-1"; }, ModelDecodeError::Kind::invalidValue, "id"},
        {"source without ref", [](Json& j) { j["source"].erase("ref"); }, ModelDecodeError::Kind::missingField,
         "source.ref"},
        {"deep key damage", [](Json& j) { j["destination"]["key"] = Json::object(); },
         ModelDecodeError::Kind::invalidNumberOfKeys, "destination.key"},
        {"week six", [](Json& j) { j["schedule"]["weeksOfMonth"] = {6}; }, ModelDecodeError::Kind::unknownCase,
         "schedule.weeksOfMonth[0]"},
        {"weekday eight", [](Json& j) { j["schedule"]["daysOfWeek"] = {1, 8}; }, ModelDecodeError::Kind::unknownCase,
         "schedule.daysOfWeek[1]"},
        {"no copyScript name", [](Json& j) { j["copyScript"] = Json::object(); }, ModelDecodeError::Kind::missingField,
         "copyScript.name"},
    };
    for (const auto& c : cases) {
        Json damaged = good;
        c.damage(damaged);
        auto decoded = fromJson<CopyTile>(damaged);
        ASSERT_FALSE(decoded) << c.name;
        EXPECT_EQ(decoded.error().kind, c.kind) << c.name << ": " << decoded.error().description();
        EXPECT_EQ(decoded.error().path, c.path) << c.name;
    }

    auto run = toJson(sampleRun(sampleTile()));
    run["outcome"] = "timedOut";
    EXPECT_EQ(fromJson<RunRecord>(run).error().path, "outcome");
    run = toJson(sampleRun(sampleTile()));
    run.erase("endedAt");
    EXPECT_EQ(fromJson<RunRecord>(run).error().path, "endedAt");
}

TEST(ConfigSnapshotJson, RunHistoryIsAnObjectKeyedByTheJobUuidText) {
    ConfigStore::Snapshot snapshot;
    auto tile = sampleTile();
    snapshot.tiles = {tile, sampleTile()};
    snapshot.tiles[1].id = Uuid::mint();
    snapshot.runHistory[tile.id] = {sampleRun(tile), sampleRun(tile)};
    snapshot.runHistory[snapshot.tiles[1].id] = {};

    auto json = toJson(snapshot);
    ASSERT_TRUE(json["runHistory"].is_object());
    EXPECT_TRUE(json["runHistory"].contains("11111111-2222-4333-8444-555555555555"));
    EXPECT_EQ(json["schemaVersion"], 1);
    EXPECT_EQ(fromJsonText<ConfigStore::Snapshot>(dumpJson(json, 2)).value(), snapshot);
    EXPECT_EQ(fromJson<ConfigStore::Snapshot>(toJson(ConfigStore::Snapshot::empty())).value(),
              ConfigStore::Snapshot::empty());

    json["runHistory"]["ABCDEF00-2222-4333-8444-555555555555"] = Json::array();
    struct Case {
        const char* name;
        std::function<void(Json&)> damage;
        ModelDecodeError::Kind kind;
        const char* path;
    };
    const Case cases[] = {
        {"history key not a uuid", [](Json& j) { j["runHistory"]["job-1"] = Json::array(); },
         ModelDecodeError::Kind::invalidValue, "runHistory.job-1"},
        {"history as array", [](Json& j) { j["runHistory"] = Json::array(); }, ModelDecodeError::Kind::typeMismatch,
         "runHistory"},
        {"no history", [](Json& j) { j.erase("runHistory"); }, ModelDecodeError::Kind::missingField, "runHistory"},
        {"history entry not a list", [](Json& j) { j["runHistory"]["11111111-2222-4333-8444-555555555555"] = 1; },
         ModelDecodeError::Kind::typeMismatch, "runHistory.11111111-2222-4333-8444-555555555555"},
        {"same job twice, spelled in two cases",
         [](Json& j) { j["runHistory"]["abcdef00-2222-4333-8444-555555555555"] = Json::array(); },
         ModelDecodeError::Kind::invalidValue, "runHistory.abcdef00-2222-4333-8444-555555555555"},
        {"record for a job damaged",
         [](Json& j) { j["runHistory"]["11111111-2222-4333-8444-555555555555"][1].erase("id"); },
         ModelDecodeError::Kind::missingField, "runHistory.11111111-2222-4333-8444-555555555555[1].id"},
        {"tiles missing", [](Json& j) { j.erase("tiles"); }, ModelDecodeError::Kind::missingField, "tiles"},
        {"bad tile", [](Json& j) { j["tiles"][1].erase("asBootable"); }, ModelDecodeError::Kind::missingField,
         "tiles[1].asBootable"},
        {"schema as text", [](Json& j) { j["schemaVersion"] = "1"; }, ModelDecodeError::Kind::typeMismatch,
         "schemaVersion"},
    };
    for (const auto& c : cases) {
        Json damaged = json;
        c.damage(damaged);
        auto decoded = fromJson<ConfigStore::Snapshot>(damaged);
        ASSERT_FALSE(decoded) << c.name;
        EXPECT_EQ(decoded.error().kind, c.kind) << c.name << ": " << decoded.error().description();
        EXPECT_EQ(decoded.error().path, c.path) << c.name;
    }
}

TEST(ConfigStoreLocation, LinuxUsesXdgConfigHomeOrDotConfig) {
    struct Case {
        const char* variable;
        const char* expected;
    };
    const Case cases[] = {
        {nullptr, "/home/ann/.config/Quillo 4/config.json"},
        {"", "/home/ann/.config/Quillo 4/config.json"},
        {"relative/dir", "/home/ann/.config/Quillo 4/config.json"},
        {"/srv/conf", "/srv/conf/Quillo 4/config.json"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ConfigStore::locationIn(ConfigStore::xdgConfigHome(c.variable, "/home/ann")).string(), c.expected);
    }
}

}  // namespace
}  // namespace ql
