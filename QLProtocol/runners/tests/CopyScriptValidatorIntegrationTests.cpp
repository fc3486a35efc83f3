// The pre-flight against real child processes: small shell scripts stand in for the engine.
#include "QLProtocol/runners/CopyScriptValidator.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

using namespace std::chrono_literals;
namespace wire = ql4::transport::v1;
using ql::CopyScriptValidator;
using Verdict = CopyScriptValidator::Verdict;

namespace {

struct ScratchDir {
    std::filesystem::path path;
    ScratchDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ql-validate-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
    }
    ~ScratchDir() { std::filesystem::remove_all(path); }
};

class CopyScriptValidatorTest : public ::testing::Test {
protected:
    ScratchDir dir;
    ql::BlockingPool pool{2};
    ql::LiveShellRunner runner{pool, [] {
                                   ql::LiveShellRunner::Options o;
                                   o.terminationGrace = 200ms;
                                   o.drainLimit = 500ms;
                                   return o;
                               }()};

    // An executable script that records its arguments, one per line, then runs `body`.
    std::string engine(const std::string& body) {
        auto file = dir.path / "qlcopy";
        std::ofstream out(file);
        out << "#!/bin/sh\n"
            << "for a in \"$@\"; do printf '%s\\n' \"$a\"; done > '" << (dir.path / "args").string() << "'\n"
            << body << "\n";
        out.close();
        ::chmod(file.c_str(), 0755);
        return file.string();
    }

    std::vector<std::string> recordedArguments() {
        std::ifstream in(dir.path / "args");
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    static wire::CopyRequest ruleRequest() {
        wire::CopyRequest r;
        r.set_copy_script_path("/rules/Docs only.dset");
        r.add_copy_script_search_dirs("/rules");
        return r;
    }

    Verdict validate(const std::string& binary, const wire::CopyRequest& request, std::chrono::milliseconds timeout) {
        asio::io_context io;
        CopyScriptValidator validator(runner);
        Verdict verdict = Verdict::unavailable("not run");
        asio::co_spawn(io, validator.validate(binary, request, timeout), [&](std::exception_ptr e, Verdict v) {
            if (e) std::rethrow_exception(e);
            verdict = std::move(v);
        });
        io.run();
        return verdict;
    }
};

TEST_F(CopyScriptValidatorTest, ExitZeroLoads) {
    auto verdict = validate(engine("exit 0"), ruleRequest(), 5s);
    EXPECT_EQ(verdict, Verdict::ok());
    EXPECT_EQ(recordedArguments(), std::vector<std::string>({"--validate-script", "--script", "/rules/Docs only.dset",
                                                             "--script-search-dir", "/rules", "--strict-includes"}));
}

TEST_F(CopyScriptValidatorTest, ExitThreeRefusesWithTrimmedStandardError) {
    auto verdict = validate(engine("printf '  \\n\\t include \"Gone.dset\" not found  \\n\\n' >&2; echo noise; exit 3"),
                            ruleRequest(), 5s);
    EXPECT_EQ(verdict, Verdict::refused("include \"Gone.dset\" not found"));
}

TEST_F(CopyScriptValidatorTest, OtherStatusIsNoVerdict) {
    auto verdict = validate(engine("echo '  segfault-ish trouble ' >&2; exit 7"), ruleRequest(), 5s);
    EXPECT_EQ(verdict, Verdict::unavailable("qlcopy --validate-script exited 7 (not a verdict): segfault-ish trouble"));
}

TEST_F(CopyScriptValidatorTest, HangingEngineIsKilledAtTheTimeout) {
    auto started = std::chrono::steady_clock::now();
    auto verdict = validate(engine("sleep 30"), ruleRequest(), 300ms);
    auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(verdict, Verdict::unavailable("qlcopy --validate-script didn't finish within 0.3 seconds — killed"));
    EXPECT_LT(took, 10s);
}

TEST_F(CopyScriptValidatorTest, MissingEngineCannotBeSpawned) {
    auto verdict = validate((dir.path / "no-such-qlcopy").string(), ruleRequest(), 5s);
    ASSERT_NE(verdict.asUnavailable(), nullptr) << verdict.describe();
    EXPECT_TRUE(verdict.asUnavailable()->reason.starts_with("couldn't spawn qlcopy for validation: "))
        << verdict.asUnavailable()->reason;
    EXPECT_GT(verdict.asUnavailable()->reason.size(), std::string("couldn't spawn qlcopy for validation: ").size());
}

TEST_F(CopyScriptValidatorTest, NoRuleNeedsNoCheck) {
    wire::CopyRequest r;
    r.add_copy_script_search_dirs("/rules");
    EXPECT_EQ(validate((dir.path / "no-such-qlcopy").string(), r, 5s), Verdict::ok());
    EXPECT_FALSE(std::filesystem::exists(dir.path / "args"));
}

}  // namespace
