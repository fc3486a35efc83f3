#include "QLProtocol/runners/QlcopyInvocation.h"

namespace ql {
namespace {

namespace wire = ql4::transport::v1;

void append(std::vector<std::string>& to, const std::vector<std::string>& more) {
    to.insert(to.end(), more.begin(), more.end());
}

void appendEach(std::vector<std::string>& to, const char* flag, const std::vector<std::string>& values) {
    for (const auto& value : values) {
        to.emplace_back(flag);
        to.push_back(value);
    }
}

}  // namespace

QlcopyInvocation QlcopyInvocation::make(std::string binary, const wire::CopyRequest& request,
                                         const Inputs& inputs) {
    std::vector<std::string> a;
    a.reserve(32);

    a.insert(a.end(), {"--progress-fd", std::to_string(kProgressDescriptor)});
    a.insert(a.end(), {"--state", inputs.statePath});

    if (inputs.snapshot) {
        a.insert(a.end(), {"--snapshot", inputs.snapshot->mountPath});
        a.insert(a.end(), {"--snap-event-anchor", std::to_string(inputs.snapshot->snapEventAnchor)});
    }

    // Only Copy Newer compares by date. Smart Update, Copy Different, an erase-then-copy (whose
    // destination is already empty by the time the engine runs), an unspecified method and any
    // number this build does not know all compare by difference.
    const auto method = request.during_copy();
    a.insert(a.end(), {"--copy-mode", method == wire::DCM_COPY_NEWER ? "newer" : "different"});
    // Smart Update is "different" plus pruning what the source no longer has; nothing else deletes.
    if (method == wire::DCM_SMART_UPDATE) a.emplace_back("--delete");

    a.emplace_back("--clone-families");

    if (!request.copy_script_path().empty()) {
        a.insert(a.end(), {"--script", request.copy_script_path()});
        append(a, searchDirArguments(request));
    }

    if (request.dry_run() || request.preview()) {
        a.insert(a.end(), {"--dry-run", "--abort-on-error-count", "0"});
        if (inputs.emitItems || request.preview()) a.emplace_back("--emit-items");
    }

    if (inputs.consoleHome && !inputs.consoleHome->empty()) {
        a.insert(a.end(), {"--console-home", *inputs.consoleHome});
    }

    if (inputs.keybag) {
        if (inputs.keybag->isNoKeybag()) {
            a.emplace_back("--no-keybag");
        } else if (const auto* s = inputs.keybag->asSentinel(); s && !s->path.empty() && !s->home.empty()) {
            a.insert(a.end(), {"--keybag-sentinel", s->path, "--keybag-uid", std::to_string(s->uid),
                               "--keybag-home", s->home});
        }
    }

    appendEach(a, "--preserve-if-absent", inputs.preserveIfAbsent);
    appendEach(a, "--optional", inputs.optional);
    appendEach(a, "--retain-on-error", inputs.retainOnError);

    if (inputs.noOwnersMapping && !inputs.noOwnersMapping->empty()) {
        a.insert(a.end(), {"--map-noowners-owner", *inputs.noOwnersMapping});
    }

    a.push_back(inputs.sourcePath);
    a.push_back(inputs.destinationPath);

    return QlcopyInvocation{std::move(binary), std::move(a)};
}

std::vector<std::string> QlcopyInvocation::searchDirArguments(const wire::CopyRequest& request) {
    std::vector<std::string> a;
    for (const auto& dir : request.copy_script_search_dirs()) {
        a.emplace_back("--script-search-dir");
        a.push_back(dir);
    }
    // Includes must then resolve inside those folders; without any, the engine keeps its default.
    if (!a.empty()) a.emplace_back("--strict-includes");
    return a;
}

std::optional<std::vector<std::string>> QlcopyInvocation::validationArguments(const wire::CopyRequest& request) {
    if (request.copy_script_path().empty()) return std::nullopt;
    std::vector<std::string> a{"--validate-script", "--script", request.copy_script_path()};
    append(a, searchDirArguments(request));
    return a;
}

std::string QlcopyInvocation::argumentsText() const {
    std::string text;
    for (const auto& argument : arguments) {
        if (!text.empty()) text += ' ';
        text += argument;
    }
    return text;
}

}  // namespace ql
