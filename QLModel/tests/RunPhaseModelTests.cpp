#include "QLModel/PhaseCatalogue.h"
#include "QLModel/RunPhaseModel.h"
#include "QLSupport/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <tuple>

namespace ql {
namespace {

using Shape = RunPhaseModel::RunShape;

// "prepare=A(resolve=D,mount=A,ownership=P) snapshot=P(snapshot=P)"
std::string render(const std::vector<RunPhase>& phases) {
    auto letter = [](PhaseState s) {
        switch (s) {
            case PhaseState::done: return 'D';
            case PhaseState::active: return 'A';
            case PhaseState::pending: return 'P';
            case PhaseState::failed: return 'F';
        }
        return '?';
    };
    std::string out;
    for (const auto& phase : phases) {
        if (!out.empty()) out += ' ';
        out += phase.id + '=' + letter(phase.state) + '(';
        for (std::size_t i = 0; i < phase.steps.size(); ++i) {
            if (i) out += ',';
            out += phase.steps[i].id + '=' + letter(phase.steps[i].state);
        }
        out += ')';
    }
    return out;
}

std::string ids(const std::vector<RunPhase>& phases) {
    std::string out;
    for (const auto& phase : phases) out += (out.empty() ? "" : " ") + phase.id;
    return out;
}

std::vector<RunPhase> smartUpdate() { return RunPhaseModel::seed(Shape::smartUpdate, false, {}); }
std::vector<RunPhase> bootable() { return RunPhaseModel::seed(Shape::eraseThenCopy, true, {}); }

TEST(PhaseCatalogueLabels, EveryLineReadsAsTheChecklistSays) {
    struct Line {
        const char* phase;
        const char* step;  // nullptr: the phase line itself
        const char* pending;
        const char* active;
        const char* done;
    };
    const Line lines[] = {
        {"prepare", nullptr, "Prepare destination", "Preparing destination", "Prepared destination"},
        {"prepare", "resolve", "Resolve volumes", "Resolving volumes", "Resolved volumes"},
        {"prepare", "attach", "Open disk image", "Opening disk image", "Opened disk image"},
        {"prepare", "erase", "Erase destination", "Erasing destination", "Erased destination"},
        {"prepare", "mount", "Mount volumes", "Mounting volumes", "Mounted volumes"},
        {"prepare", "ownership", "Set ownership", "Setting ownership", "Set ownership"},
        {"snapshot", nullptr, "Capture snapshot", "Capturing snapshot", "Captured snapshot"},
        {"snapshot", "snapshot", "Capture snapshot", "Capturing snapshot", "Captured snapshot"},
        {"files", nullptr, "Copy files", "Copying files", "Copied files"},
        {"files", "copyFile", "Copy files", "Copying files", "Copied files"},
        {"erase", nullptr, "Erase destination", "Erasing destination", "Erased destination"},
        {"erase", "erase", "Erase destination", "Erasing destination", "Erased destination"},
        {"encrypt", nullptr, "Re-encrypt destination", "Re-encrypting destination", "Re-encrypted destination"},
        {"encrypt", "encrypt", "Re-encrypt destination", "Re-encrypting destination", "Re-encrypted destination"},
        {"replicate", nullptr, "Replicate volumes", "Replicating volumes", "Replicated volumes"},
        {"replicate", "replicate:system", "Replicate System volume", "Replicating System volume",
         "Replicated System volume"},
        {"replicate", "replicate:data", "Replicate Data volume", "Replicating Data volume", "Replicated Data volume"},
        {"replicate", "replicate:preboot", "Update Preboot volume", "Updating Preboot volume", "Updated Preboot volume"},
        {"replicate", "replicate:recovery", "Update Recovery volume", "Updating Recovery volume",
         "Updated Recovery volume"},
        {"replicate", "replicate:vm", "Update VM volume", "Updating VM volume", "Updated VM volume"},
        {"finalize", nullptr, "Make destination bootable", "Making destination bootable", "Made destination bootable"},
        {"finalize", "finalize:rename", "Rename destination volumes", "Renaming destination volumes",
         "Renamed destination volumes"},
        {"finalize", "finalize:cryptexes", "Copy Cryptexes", "Copying Cryptexes", "Copied Cryptexes"},
        {"finalize", "finalize:bindingRefresh", "Refresh destination identity", "Refreshing destination identity",
         "Refreshed destination identity"},
    };
    // Every line of the catalogue is in the table, and every table line is in the catalogue.
    std::size_t catalogueLines = 0;
    std::set<std::string> seen;
    for (const auto& d : PhaseCatalogue::all()) {
        auto check = [&](const std::string& stepID, const PhaseLabels& labels) {
            auto it = std::find_if(std::begin(lines), std::end(lines), [&](const Line& l) {
                return d.id == l.phase && (l.step ? stepID == l.step : stepID.empty());
            });
            ASSERT_NE(it, std::end(lines)) << d.id << " " << stepID;
            EXPECT_EQ(labels.pending, it->pending);
            EXPECT_EQ(labels.active, it->active);
            EXPECT_EQ(labels.done, it->done);
            EXPECT_EQ(labels.failed, PhaseLabels::failedLabel(it->pending));
            seen.insert(d.id + "/" + stepID);
        };
        check("", d.labels);
        for (const auto& s : d.steps) check(s.id, s.labels);
        catalogueLines += 1 + d.steps.size();
        EXPECT_EQ(d.isDeterminate, d.id == "files" || d.id == "replicate") << d.id;
    }
    EXPECT_EQ(seen.size(), std::size(lines));
    EXPECT_GT(catalogueLines, seen.size());  // "prepare" appears in three forms
}

TEST(PhaseCatalogueLabels, FailedLabelsDeriveFromThePendingLabel) {
    const std::pair<const char*, const char*> cases[] = {
        {"Copy Cryptexes", "Failed to copy Cryptexes"},
        {"Prepare destination", "Failed to prepare destination"},
        {"Re-encrypt destination", "Failed to re-encrypt destination"},
        {"Update VM volume", "Failed to update VM volume"},
        {"", "Failed"},
        {"x", "Failed to x"},
    };
    for (auto [pending, failed] : cases) {
        EXPECT_EQ(PhaseLabels::failedLabel(pending), failed);
        EXPECT_EQ(PhaseLabels(pending, "a", "d").failed, failed);
    }
    auto phases = RunPhaseModel::applyFailure(bootable(), "finalize", "finalize:cryptexes");
    EXPECT_EQ(phases[2].label(), "Failed to make destination bootable");
    EXPECT_EQ(phases[2].steps[1].label(), "Failed to copy Cryptexes");
    EXPECT_EQ(phases[0].label(), "Prepared destination");
    EXPECT_EQ(phases[2].steps[0].label(), "Rename destination volumes");
}

TEST(RunPhaseSeeding, EachKindOfRunStartsWithItsChecklist) {
    struct Case {
        Shape shape;
        bool bootable;
        bool image;
        bool imageErase;
    };
    const char* plainPrepare = "prepare=P(resolve=P,mount=P,ownership=P)";
    const char* imagePrepare = "prepare=P(resolve=P,attach=P,mount=P,ownership=P)";
    const char* imagePrepareErase = "prepare=P(resolve=P,attach=P,erase=P,mount=P,ownership=P)";
    const std::string tail = " snapshot=P(snapshot=P) files=P(copyFile=P)";
    const std::string bootableList = std::string(plainPrepare) +
                                     " replicate=P(replicate:system=P,replicate:data=P,replicate:preboot=P,"
                                     "replicate:recovery=P,replicate:vm=P) finalize=P(finalize:rename=P,"
                                     "finalize:cryptexes=P,finalize:bindingRefresh=P)";
    const std::string expected[] = {
        plainPrepare + tail,                               // smart update
        plainPrepare + tail,                               // smart update, bootable flag ignored
        imagePrepare + tail,                               // smart update onto a disk image
        imagePrepare + tail,                               // ... even when an erase was planned
        bootableList,                                      // erase then copy, bootable
        bootableList,                                      // bootable wins over a disk image
        "erase=P(erase=P) " + std::string(plainPrepare) + tail,
        imagePrepareErase + tail,
        imagePrepare + tail,
    };
    const Case cases[] = {
        {Shape::smartUpdate, false, false, false},  {Shape::smartUpdate, true, false, false},
        {Shape::smartUpdate, false, true, false},   {Shape::smartUpdate, true, true, true},
        {Shape::eraseThenCopy, true, false, false}, {Shape::eraseThenCopy, true, true, true},
        {Shape::eraseThenCopy, false, false, true}, {Shape::eraseThenCopy, false, true, true},
        {Shape::eraseThenCopy, false, true, false},
    };
    ASSERT_EQ(std::size(cases), std::size(expected));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        auto phases = RunPhaseModel::seed(c.shape, c.bootable, {c.image, c.imageErase});
        EXPECT_EQ(render(phases), expected[i]) << "case " << i;
    }
    auto plain = smartUpdate();
    ASSERT_EQ(plain.size(), 3u);
    EXPECT_EQ(std::count_if(plain.begin(), plain.end(), [](const RunPhase& p) { return p.isDeterminate; }), 1);
    EXPECT_TRUE(plain[2].isDeterminate);
}

TEST(RunPhaseStart, EveryPhaseOfEverySeedSettlesTheOthersAroundIt) {
    const std::vector<std::vector<RunPhase>> seeds = {
        smartUpdate(), bootable(), RunPhaseModel::seed(Shape::eraseThenCopy, false, {}),
        RunPhaseModel::seed(Shape::eraseThenCopy, false, {true, true})};
    for (const auto& seed : seeds) {
        for (std::size_t k = 0; k < seed.size(); ++k) {
            // Start from a messy state: everything failed or active.
            auto messy = seed;
            for (std::size_t i = 0; i < messy.size(); ++i) messy[i].state = i % 2 ? PhaseState::failed : PhaseState::active;
            auto phases = RunPhaseModel::applyPhaseStart(messy, seed[k].id, true);
            ASSERT_EQ(ids(phases), ids(seed));
            for (std::size_t i = 0; i < phases.size(); ++i) {
                auto expected = i < k ? PhaseState::done : i == k ? PhaseState::active : PhaseState::pending;
                EXPECT_EQ(phases[i].state, expected) << ids(seed) << " start " << seed[k].id << " at " << i;
                EXPECT_EQ(phases[i].steps, messy[i].steps);  // steps are left alone
            }
        }
    }
}

TEST(RunPhaseStart, OnDemandPhasesGoBeforeTheirFirstPresentAnchor) {
    struct Case {
        std::vector<RunPhase> seed;
        std::vector<const char*> starts;
        const char* expected;
    };
    auto only = [](std::initializer_list<const ClientPhaseDescriptor*> ds) {
        std::vector<RunPhase> phases;
        for (auto d : ds) phases.push_back(RunPhase::fromDescriptor(*d));
        return phases;
    };
    const Case cases[] = {
        {bootable(), {"snapshot"}, "prepare replicate snapshot finalize"},
        {smartUpdate(), {"erase"}, "erase prepare snapshot files"},
        {smartUpdate(), {"encrypt"}, "encrypt prepare snapshot files"},
        {smartUpdate(), {"encrypt", "erase"}, "erase encrypt prepare snapshot files"},
        {RunPhaseModel::seed(Shape::eraseThenCopy, false, {}), {"encrypt"}, "erase encrypt prepare snapshot files"},
        {bootable(), {"erase", "encrypt", "snapshot"}, "erase encrypt prepare replicate snapshot finalize"},
        {only({&PhaseCatalogue::prepare(), &PhaseCatalogue::replicate()}), {"snapshot"}, "prepare replicate snapshot"},
        {only({&PhaseCatalogue::files()}), {"encrypt", "erase", "snapshot"}, "erase encrypt snapshot files"},
        {{}, {"erase"}, "erase"},
        {smartUpdate(), {"snapshot", "snapshot"}, "prepare snapshot files"},  // never twice
        {smartUpdate(), {"replicate", "finalize", "verify"}, "prepare snapshot files"},  // not insertable
    };
    for (const auto& c : cases) {
        auto phases = c.seed;
        for (auto start : c.starts) phases = RunPhaseModel::applyPhaseStart(phases, start, false);
        EXPECT_EQ(ids(phases), c.expected);
        if (std::string(c.expected) != ids(c.seed)) {
            int k = RunPhaseModel::phaseIndex(phases, c.starts.back());
            ASSERT_GE(k, 0);
            EXPECT_EQ(phases[static_cast<std::size_t>(k)].state, PhaseState::active);
            EXPECT_EQ(phases[static_cast<std::size_t>(k)].steps.size(), 1u);
        }
    }
}

TEST(RunPhaseStart, UnknownPhasesAreLoggedOnlyWhenAsked) {
    auto seed = smartUpdate();
    {
        LogCapture log;
        EXPECT_EQ(RunPhaseModel::applyPhaseStart(seed, "verify", true), seed);
        EXPECT_EQ(log.lines(), std::vector<std::string>{"[applyPhaseStart] unrecognised daemon phase 'verify'"});
    }
    {
        LogCapture log;
        EXPECT_EQ(RunPhaseModel::applyPhaseStart(seed, "verify", false), seed);
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(RunPhaseSteps, StartsAndEndsMoveStepsAndWakeTheirPhase) {
    struct Case {
        const char* name;
        std::vector<std::tuple<char, const char*, const char*>> events;  // 'S' step start, 'E' step end, 'P' phase start
        const char* expected;
    };
    const Case cases[] = {
        {"skipped resolve shows done", {{'S', "prepare", "mount"}},
         "prepare=A(resolve=D,mount=A,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"first step", {{'S', "prepare", "resolve"}},
         "prepare=A(resolve=A,mount=P,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"step end", {{'S', "prepare", "resolve"}, {'E', "prepare", "resolve"}},
         "prepare=A(resolve=D,mount=P,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"end of a later step closes earlier pending ones", {{'E', "prepare", "ownership"}},
         "prepare=A(resolve=D,mount=D,ownership=D) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"an active earlier step stays active", {{'S', "prepare", "resolve"}, {'S', "prepare", "ownership"}},
         "prepare=A(resolve=A,mount=D,ownership=A) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"later steps untouched", {{'E', "prepare", "ownership"}, {'S', "prepare", "resolve"}},
         "prepare=A(resolve=A,mount=D,ownership=D) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"a done phase keeps its state", {{'P', "files", ""}, {'S', "prepare", "mount"}},
         "prepare=D(resolve=D,mount=A,ownership=P) snapshot=D(snapshot=P) files=A(copyFile=P)"},
        {"steps of another phase", {{'S', "snapshot", "snapshot"}},
         "prepare=P(resolve=P,mount=P,ownership=P) snapshot=A(snapshot=A) files=P(copyFile=P)"},
        {"unknown phase", {{'S', "verify", "resolve"}},
         "prepare=P(resolve=P,mount=P,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"unknown step", {{'S', "prepare", "copyFile"}, {'E', "files", "mount"}},
         "prepare=P(resolve=P,mount=P,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
    };
    for (const auto& c : cases) {
        auto phases = smartUpdate();
        for (auto [kind, phase, step] : c.events) {
            if (kind == 'S') phases = RunPhaseModel::applyStepStart(phases, phase, step);
            if (kind == 'E') phases = RunPhaseModel::applyStepEnd(phases, phase, step);
            if (kind == 'P') phases = RunPhaseModel::applyPhaseStart(phases, phase, true);
        }
        EXPECT_EQ(render(phases), c.expected) << c.name;
    }
}

TEST(RunPhaseSteps, UnknownStepsAreLoggedWithTheirOperation) {
    LogCapture log;
    auto seed = smartUpdate();
    EXPECT_EQ(RunPhaseModel::applyStepStart(seed, "prepare", "copyFile"), seed);
    EXPECT_EQ(RunPhaseModel::applyStepEnd(seed, "files", "mount"), seed);
    EXPECT_EQ(RunPhaseModel::applyStepStart(seed, "verify", "x"), seed);  // unknown phase: silent
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"[applyStepStart] no step 'copyFile' in client phase 'prepare'",
                                                     "[applyStepEnd] no step 'mount' in client phase 'files'"}));
}

TEST(RunPhaseEnds, PhaseEndsAndFailuresMarkTheRightLines) {
    struct Case {
        const char* name;
        std::function<std::vector<RunPhase>(std::vector<RunPhase>)> apply;
        const char* expected;
    };
    auto inPrepareMount = [] {
        auto p = RunPhaseModel::applyPhaseStart(smartUpdate(), "prepare", false);
        return RunPhaseModel::applyStepStart(p, "prepare", "mount");
    };
    const Case cases[] = {
        {"phase end closes pending and active steps",
         [](auto p) { return RunPhaseModel::applyPhaseEnd(p, "prepare", true); },
         "prepare=D(resolve=D,mount=D,ownership=D) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"phase end inserts an on-demand phase",
         [](auto p) { return RunPhaseModel::applyPhaseEnd(p, "erase", true); },
         "erase=D(erase=D) prepare=A(resolve=D,mount=A,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"failure of the named step", [](auto p) { return RunPhaseModel::applyFailure(p, "prepare", "ownership"); },
         "prepare=F(resolve=D,mount=A,ownership=F) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"failure of a phase fails its active step",
         [](auto p) { return RunPhaseModel::applyFailure(p, "prepare", std::nullopt); },
         "prepare=F(resolve=D,mount=F,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"unnamed failure picks the active phase and step",
         [](auto p) { return RunPhaseModel::applyFailure(p, std::nullopt, std::nullopt); },
         "prepare=F(resolve=D,mount=F,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"unknown phase falls back to the active one",
         [](auto p) { return RunPhaseModel::applyFailure(p, "verify", "resolve"); },
         "prepare=F(resolve=D,mount=F,ownership=P) snapshot=P(snapshot=P) files=P(copyFile=P)"},
        {"failure of a later phase closes earlier ones",
         [](auto p) { return RunPhaseModel::applyFailure(p, "files", "copyFile"); },
         "prepare=D(resolve=D,mount=A,ownership=P) snapshot=D(snapshot=P) files=F(copyFile=F)"},
    };
    for (const auto& c : cases) EXPECT_EQ(render(c.apply(inPrepareMount())), c.expected) << c.name;

    // Nothing active and nothing named: nothing to mark.
    EXPECT_EQ(RunPhaseModel::applyFailure(smartUpdate(), std::nullopt, std::nullopt), smartUpdate());
}

TEST(RunPhaseLabels, EachStateShowsItsLabel) {
    auto phases = RunPhaseModel::applyStepStart(smartUpdate(), "prepare", "mount");
    EXPECT_EQ(phases[0].label(), "Preparing destination");
    EXPECT_EQ(phases[0].steps[0].label(), "Resolved volumes");
    EXPECT_EQ(phases[0].steps[1].label(), "Mounting volumes");
    EXPECT_EQ(phases[0].steps[2].label(), "Set ownership");
    EXPECT_EQ(phases[2].label(), "Copy files");
}

}  // namespace
}  // namespace ql
