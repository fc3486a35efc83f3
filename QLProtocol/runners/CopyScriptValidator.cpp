#include "QLProtocol/runners/CopyScriptValidator.h"

#include "QLProtocol/runners/QlcopyInvocation.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>

namespace ql {
namespace {

constexpr const char* kTag = "CopyScriptValidator";

// Without surrounding blanks, tabs and line breaks.
std::string trimmed(std::string_view text) {
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return std::string(text);
}

}  // namespace

std::string CopyScriptValidator::Verdict::describe() const {
    if (isOk()) return "ok";
    if (const auto* r = asRefused()) return "refused: " + r->detail;
    return "unavailable: " + asUnavailable()->reason;
}

asio::awaitable<CopyScriptValidator::Verdict> CopyScriptValidator::validate(
    std::string binary, ql4::transport::v1::CopyRequest request, std::chrono::milliseconds timeout,
    std::optional<UserCredentials> runAs) {
    auto arguments = QlcopyInvocation::validationArguments(request);
    if (!arguments) co_return Verdict::ok();

    ShellCommand command;
    command.executable = binary;
    command.arguments = std::move(*arguments);
    command.timeout = timeout;
    command.runAs = std::move(runAs);

    Verdict verdict;
    try {
        // Named before awaiting: see the note on temporaries inside co_await in ARCHITECTURE.md.
        auto running = runner_.run(std::move(command));
        ShellRunner::Outcome outcome = co_await std::move(running);
        verdict = verdictFor(outcome, timeout);
    } catch (const std::exception& e) {
        verdict = Verdict::unavailable(std::string("couldn't spawn qlcopy for validation: ") + e.what());
    }
    Log::f(kTag, "{} → {}", request.copy_script_path(), verdict.describe());
    co_return verdict;
}

CopyScriptValidator::Verdict CopyScriptValidator::verdictFor(const ShellRunner::Outcome& outcome,
                                                             std::chrono::milliseconds timeout) {
    using Kind = ShellRunner::ShellError::Kind;
    if (!outcome) {
        const auto& error = outcome.error();
        switch (error.kind) {
            case Kind::launchFailed:
                return Verdict::unavailable("couldn't spawn qlcopy for validation: " + error.message());
            case Kind::timedOut:
                return Verdict::unavailable("qlcopy --validate-script didn't finish within " +
                                            durationText(timeout) + " — killed");
            case Kind::cancelled:
            case Kind::nonZeroExit:
            case Kind::drainStalled:
                return Verdict::unavailable("qlcopy --validate-script gave no verdict: " + error.message());
        }
        return Verdict::unavailable("qlcopy --validate-script gave no verdict: " + error.message());
    }
    const auto& result = *outcome;
    if (result.exitCode == 0) return Verdict::ok();
    if (result.exitCode == kRefusedExitStatus) return Verdict::refused(trimmed(result.stderr));
    return Verdict::unavailable(fmt::format("qlcopy --validate-script exited {} (not a verdict): {}", result.exitCode,
                                            trimmed(result.stderr)));
}

std::string CopyScriptValidator::durationText(std::chrono::milliseconds duration) {
    if (duration.count() % 1000 == 0) {
        auto s = duration.count() / 1000;
        return fmt::format("{} second{}", s, s == 1 ? "" : "s");
    }
    return fmt::format("{:g} seconds", static_cast<double>(duration.count()) / 1000.0);
}

std::string CopyScriptValidator::ruleName(std::string_view copyScriptPath) {
    auto slash = copyScriptPath.find_last_of('/');
    std::string_view name = slash == std::string_view::npos ? copyScriptPath : copyScriptPath.substr(slash + 1);
    constexpr std::string_view extension = ".dset";
    if (name.size() > extension.size() && name.substr(name.size() - extension.size()) == extension) {
        name.remove_suffix(extension.size());
    }
    return std::string(name);
}

std::string CopyScriptValidator::fileCopyRefusalMessage(std::string_view ruleName, std::string_view detail) {
    return fmt::format("The Copy Rule \"{}\" can't be loaded, so this copy can't run. (qlcopy.failure.script_load: {})",
                       ruleName, detail);
}

std::string CopyScriptValidator::eraseRefusalMessage(std::string_view ruleName, std::string_view destinationName,
                                                     std::string_view detail) {
    return fmt::format(
        "The Copy Rule \"{}\" can't be loaded, so this copy can't run — refused before erasing \"{}\", which was "
        "left untouched. (qlcopy.failure.script_load: {})",
        ruleName, destinationName, detail);
}

std::string CopyScriptValidator::unavailableLogText(std::string_view reason) {
    return fmt::format("script validation unavailable ({}) — proceeding without the preflight", reason);
}

}  // namespace ql
