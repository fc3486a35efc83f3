#include "QLProtocol/runners/CopyScriptValidator.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using ql::CopyScriptValidator;
using ql::ShellRunner;
using Verdict = CopyScriptValidator::Verdict;

namespace {

TEST(CopyScriptValidator, DurationText) {
    EXPECT_EQ(CopyScriptValidator::durationText(20s), "20 seconds");
    EXPECT_EQ(CopyScriptValidator::durationText(1s), "1 second");
    EXPECT_EQ(CopyScriptValidator::durationText(250ms), "0.25 seconds");
    EXPECT_EQ(CopyScriptValidator::durationText(CopyScriptValidator::kDefaultTimeout), "20 seconds");
}

TEST(CopyScriptValidator, VerdictsForOutcomesThatNeverExited) {
    using Error = ShellRunner::ShellError;
    EXPECT_EQ(CopyScriptValidator::verdictFor(tl::unexpected(Error::timedOut("/q", 20)), 20s),
              Verdict::unavailable("qlcopy --validate-script didn't finish within 20 seconds — killed"));
    EXPECT_EQ(CopyScriptValidator::verdictFor(tl::unexpected(Error::launchFailed("No such file or directory")), 20s),
              Verdict::unavailable("couldn't spawn qlcopy for validation: No such file or directory"));
    auto stalled = CopyScriptValidator::verdictFor(tl::unexpected(Error::drainStalled("/q", 2)), 20s);
    ASSERT_NE(stalled.asUnavailable(), nullptr);
    EXPECT_FALSE(stalled.asUnavailable()->reason.empty());
    // A signal-ended engine reports 128 + the signal: no verdict either.
    EXPECT_EQ(CopyScriptValidator::verdictFor(ShellRunner::Result{139, "", "\n"}, 20s),
              Verdict::unavailable("qlcopy --validate-script exited 139 (not a verdict): "));
}

TEST(CopyScriptValidator, CallerTexts) {
    EXPECT_EQ(CopyScriptValidator::ruleName("/Users/ann/Library/Application Support/Quillo!/Rules/Docs only.dset"),
              "Docs only");
    EXPECT_EQ(CopyScriptValidator::ruleName("plain"), "plain");
    EXPECT_EQ(CopyScriptValidator::ruleName("/r/.dset"), ".dset");
    EXPECT_EQ(CopyScriptValidator::fileCopyRefusalMessage("Docs only", "include \"Gone.dset\" not found"),
              "The Copy Rule \"Docs only\" can't be loaded, so this copy can't run. (qlcopy.failure.script_load: "
              "include \"Gone.dset\" not found)");
    EXPECT_EQ(CopyScriptValidator::eraseRefusalMessage("Docs only", "Backup", "bad"),
              "The Copy Rule \"Docs only\" can't be loaded, so this copy can't run — refused before erasing "
              "\"Backup\", which was left untouched. (qlcopy.failure.script_load: bad)");
    EXPECT_EQ(CopyScriptValidator::unavailableLogText("qlcopy --validate-script exited 7 (not a verdict): x"),
              "script validation unavailable (qlcopy --validate-script exited 7 (not a verdict): x) — proceeding "
              "without the preflight");
}

}  // namespace
