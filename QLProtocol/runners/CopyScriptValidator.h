#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLSupport/ShellRunner.h"

#include <asio.hpp>

#include <chrono>
#include <string>
#include <string_view>
#include <variant>

namespace ql {

// The pre-flight check that asks the engine whether the request's copy rule loads, before a
// runner touches anything: `qlcopy --validate-script --script <rule> [search dirs]`. Exit status
// 0 means the rule loads and 3 that the engine refuses it; anything else (a crash, a missing
// engine, a hang) gives no verdict, and the copy then goes ahead without the pre-flight.
class CopyScriptValidator {
public:
    //   ok           the rule loads (or the request names none)
    //   refused      the engine declares the rule unloadable; `detail` is what it said
    //   unavailable  no verdict could be obtained; `reason` says why
    struct Verdict {
        struct Ok {
            friend bool operator==(const Ok&, const Ok&) = default;
        };
        struct Refused {
            std::string detail;
            friend bool operator==(const Refused&, const Refused&) = default;
        };
        struct Unavailable {
            std::string reason;
            friend bool operator==(const Unavailable&, const Unavailable&) = default;
        };

        std::variant<Ok, Refused, Unavailable> value;

        static Verdict ok() { return {Ok{}}; }
        static Verdict refused(std::string detail) { return {Refused{std::move(detail)}}; }
        static Verdict unavailable(std::string reason) { return {Unavailable{std::move(reason)}}; }

        bool isOk() const { return std::holds_alternative<Ok>(value); }
        const Refused* asRefused() const { return std::get_if<Refused>(&value); }
        const Unavailable* asUnavailable() const { return std::get_if<Unavailable>(&value); }

        // "ok", "refused: …" or "unavailable: …", for log lines.
        std::string describe() const;

        friend bool operator==(const Verdict&, const Verdict&) = default;
    };

    // What the runners allow the engine for its answer.
    static constexpr std::chrono::milliseconds kDefaultTimeout{std::chrono::seconds(20)};
    // The exit status by which the engine refuses a rule.
    static constexpr int kRefusedExitStatus = 3;

    explicit CopyScriptValidator(ShellRunner& runner) : runner_(runner) {}

    // Runs the check; never throws. A child that outlives `timeout` is stopped.
    // `runAs`: the engine reads the rule with that user's rights (a job run with its owner's).
    asio::awaitable<Verdict> validate(std::string binary, ql4::transport::v1::CopyRequest request,
                                      std::chrono::milliseconds timeout = kDefaultTimeout,
                                      std::optional<UserCredentials> runAs = std::nullopt);

    // The verdict for the outcome of the engine's run (the part of `validate` after spawning).
    static Verdict verdictFor(const ShellRunner::Outcome& outcome, std::chrono::milliseconds timeout);

    // "20 seconds", "1 second", "0.25 seconds".
    static std::string durationText(std::chrono::milliseconds duration);

    // The rule's name as the user knows it: the document's file name without ".dset".
    static std::string ruleName(std::string_view copyScriptPath);

    // The failure sentence of a file copy whose rule was refused.
    static std::string fileCopyRefusalMessage(std::string_view ruleName, std::string_view detail);
    // The failure sentence of an erase-then-copy whose rule was refused before erasing.
    static std::string eraseRefusalMessage(std::string_view ruleName, std::string_view destinationName,
                                           std::string_view detail);
    // The log text of a run that goes ahead without a verdict.
    static std::string unavailableLogText(std::string_view reason);

private:
    ShellRunner& runner_;
};

}  // namespace ql
