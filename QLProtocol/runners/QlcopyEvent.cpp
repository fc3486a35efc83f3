#include "QLProtocol/runners/QlcopyEvent.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>

namespace ql {
namespace {

using E = QlcopyEvent;

template <typename T>
struct Field {
    const char* key;
    std::optional<T> QlcopyEvent::*member;
};

constexpr Field<std::int64_t> kInt64Fields[] = {
    {"ts", &E::ts},
    {"files_evaluated", &E::filesEvaluated},
    {"bytes_evaluated", &E::bytesEvaluated},
    {"files_completed", &E::filesCompleted},
    {"bytes_copied", &E::bytesCopied},
    {"scout_total_files", &E::scoutTotalFiles},
    {"scout_total_bytes", &E::scoutTotalBytes},
    {"eta_seconds", &E::etaSeconds},
    {"eta_selected_seconds", &E::etaSelectedSeconds},
    {"bytes_skipped", &E::bytesSkipped},
    {"files_skipped", &E::filesSkipped},
    {"work_done_bytes", &E::workDoneBytes},
    {"dirs_retime_checked", &E::dirsRetimeChecked},
    {"dirs_retime_total", &E::dirsRetimeTotal},
    {"dirs_retime_restamped", &E::dirsRetimeRestamped},
    {"items_evaluated", &E::itemsEvaluated},
    {"items_copied", &E::itemsCopied},
    {"items_updated_meta_only", &E::itemsUpdatedMetaOnly},
    {"items_deleted", &E::itemsDeleted},
    {"deferred_count", &E::deferredCount},
    {"first_error_unix_nanos", &E::firstErrorUnixNanos},
    {"entries_seen", &E::entriesSeen},
};

// Medium kinds: integers, where true and false are accepted as 1 and 0.
constexpr Field<std::int64_t> kIntegerFlagFields[] = {
    {"src_is_solid_state", &E::srcIsSolidState},
    {"dst_is_solid_state", &E::dstIsSolidState},
};

constexpr Field<std::int32_t> kInt32Fields[] = {
    {"errors", &E::errors},
    {"ignored_errors", &E::ignoredErrors},
    {"first_error_errno", &E::firstErrorErrno},
    {"errno_value", &E::errnoValue},
    {"signal", &E::signal},
};

constexpr Field<double> kDoubleFields[] = {
    {"elapsed_s", &E::elapsedS},
    {"rate_effective_bps", &E::rateEffectiveBps},
    {"rate_window_bps", &E::rateWindowBps},
    {"copy_ratio_cum", &E::copyRatioCum},
    {"effective_rate_bps", &E::effectiveRateBps},
    {"stalled_s", &E::stalledS},
    {"in_dir_s", &E::inDirS},
};

constexpr Field<bool> kBoolFields[] = {
    {"scout_done", &E::scoutDone},
    {"rate_window_valid", &E::rateWindowValid},
    {"delete_backpressure", &E::deleteBackpressure},
    {"copy_in_flight", &E::copyInFlight},
    {"walk_done", &E::walkDone},
    {"interrupted", &E::interrupted},
    {"sel", &E::sel},
    {"dir", &E::dir},
};

constexpr Field<std::string> kStringFields[] = {
    {"current_scan_path", &E::currentScanPath},
    {"current_copy_path", &E::currentCopyPath},
    {"first_error_path", &E::firstErrorPath},
    {"first_error_syscall", &E::firstErrorSyscall},
    {"first_error_side", &E::firstErrorSide},
    {"mode", &E::mode},
    {"reason", &E::reason},
    {"side", &E::side},
    {"action", &E::action},
    {"kind", &E::kind},
    {"message", &E::message},
    {"path", &E::path},
    {"subject", &E::subject},
    {"scanner_path", &E::scannerPath},
    {"executor_path", &E::executorPath},
};

constexpr const char* kMetaReasonsKey = "meta_reasons";
constexpr const char* kDeferredPathsKey = "deferred_paths";

struct KindName {
    QlcopyEvent::Kind kind;
    std::string_view name;
};
constexpr KindName kKindNames[] = {
    {E::Kind::progress, "progress"},
    {E::Kind::summary, "summary"},
    {E::Kind::stall, "stall"},
    {E::Kind::slow, "slow"},
    {E::Kind::failure, "failure"},
    {E::Kind::warning, "warning"},
    {E::Kind::info, "info"},
    {E::Kind::terminated, "terminated"},
    {E::Kind::phaseStarted, "phase_started"},
    {E::Kind::phaseCompleted, "phase_completed"},
    {E::Kind::scanMode, "scan_mode"},
    {E::Kind::item, "item"},
};

using Error = QlcopyEventDecodeError;

Error wrongType(const char* key, std::string_view expected, const Json& value) {
    return Error::typeMismatch(key, fmt::format("should be {} but is {}", expected, jsonTypeName(value)));
}

// A JSON number as an integer of type T: integers within T's range, and floating-point numbers
// whose value is a whole number within it.
template <typename T>
tl::expected<T, Error> integer(const char* key, const Json& value, std::string_view expected) {
    constexpr auto lo = std::numeric_limits<T>::min();
    constexpr auto hi = std::numeric_limits<T>::max();
    if (value.is_number_unsigned()) {
        auto v = value.get<std::uint64_t>();
        if (v > static_cast<std::uint64_t>(hi)) return tl::unexpected(Error::outOfRange(key, std::to_string(v)));
        return static_cast<T>(v);
    }
    if (value.is_number_integer()) {
        auto v = value.get<std::int64_t>();
        if (v < static_cast<std::int64_t>(lo) || v > static_cast<std::int64_t>(hi)) {
            return tl::unexpected(Error::outOfRange(key, std::to_string(v)));
        }
        return static_cast<T>(v);
    }
    if (value.is_number_float()) {
        double v = value.get<double>();
        // 2^63 and -2^63 are exact doubles; [lo, hi] for T up to 64 bits is [lo, -lo).
        const double upper = -static_cast<double>(lo);
        if (!std::isfinite(v) || v != std::trunc(v) || v < static_cast<double>(lo) || v >= upper) {
            return tl::unexpected(Error::outOfRange(key, fmt::format("{}", v)));
        }
        return static_cast<T>(v);
    }
    return tl::unexpected(wrongType(key, expected, value));
}

tl::expected<void, Error> decodeFields(const Json& object, QlcopyEvent& event) {
    auto present = [&](const char* key) -> const Json* {
        auto it = object.find(key);
        if (it == object.end() || it->is_null()) return nullptr;
        return &*it;
    };

    for (const auto& f : kInt64Fields) {
        if (const Json* v = present(f.key)) {
            auto n = integer<std::int64_t>(f.key, *v, "an integer");
            if (!n) return tl::unexpected(n.error());
            event.*f.member = *n;
        }
    }
    for (const auto& f : kIntegerFlagFields) {
        if (const Json* v = present(f.key)) {
            if (v->is_boolean()) {
                event.*f.member = v->get<bool>() ? 1 : 0;
                continue;
            }
            auto n = integer<std::int64_t>(f.key, *v, "an integer or a boolean");
            if (!n) return tl::unexpected(n.error());
            event.*f.member = *n;
        }
    }
    for (const auto& f : kInt32Fields) {
        if (const Json* v = present(f.key)) {
            auto n = integer<std::int32_t>(f.key, *v, "an integer");
            if (!n) return tl::unexpected(n.error());
            event.*f.member = *n;
        }
    }
    for (const auto& f : kDoubleFields) {
        if (const Json* v = present(f.key)) {
            if (!v->is_number()) return tl::unexpected(wrongType(f.key, "a number", *v));
            event.*f.member = v->get<double>();
        }
    }
    for (const auto& f : kBoolFields) {
        if (const Json* v = present(f.key)) {
            if (!v->is_boolean()) return tl::unexpected(wrongType(f.key, "a boolean", *v));
            event.*f.member = v->get<bool>();
        }
    }
    for (const auto& f : kStringFields) {
        if (const Json* v = present(f.key)) {
            if (!v->is_string()) return tl::unexpected(wrongType(f.key, "a string", *v));
            event.*f.member = v->get<std::string>();
        }
    }
    if (const Json* v = present(kMetaReasonsKey)) {
        if (!v->is_object()) return tl::unexpected(wrongType(kMetaReasonsKey, "an object", *v));
        std::map<std::string, std::int32_t> reasons;
        for (auto it = v->begin(); it != v->end(); ++it) {
            auto n = integer<std::int32_t>(kMetaReasonsKey, it.value(), "an object of integers");
            if (!n) return tl::unexpected(n.error());
            reasons[it.key()] = *n;
        }
        event.metaReasons = std::move(reasons);
    }
    if (const Json* v = present(kDeferredPathsKey)) {
        if (!v->is_array()) return tl::unexpected(wrongType(kDeferredPathsKey, "an array", *v));
        std::vector<std::string> paths;
        paths.reserve(v->size());
        for (const auto& p : *v) {
            if (!p.is_string()) return tl::unexpected(wrongType(kDeferredPathsKey, "an array of strings", *v));
            paths.push_back(p.get<std::string>());
        }
        event.deferredPaths = std::move(paths);
    }
    return {};
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r\n\v\f") == std::string_view::npos;
}

}  // namespace

std::string_view QlcopyEvent::kindName(Kind kind) {
    for (const auto& k : kKindNames) {
        if (k.kind == kind) return k.name;
    }
    return "unknown";
}

std::optional<QlcopyEvent::Kind> QlcopyEvent::kindNamed(std::string_view name) {
    for (const auto& k : kKindNames) {
        if (k.name == name) return k.kind;
    }
    return std::nullopt;
}

QlcopyEvent::DecodeResult QlcopyEvent::decode(std::string_view line) {
    if (isBlank(line)) return std::optional<QlcopyEvent>();

    auto parsed = parseJson(line);
    if (!parsed) return tl::unexpected(Error::invalidJSON(parsed.error()));
    const Json& object = *parsed;
    if (!object.is_object()) return tl::unexpected(Error::notAnObject(jsonTypeName(object)));

    auto type = object.find("type");
    if (type == object.end() || !type->is_string()) return tl::unexpected(Error::missingType());
    auto kind = kindNamed(type->get_ref<const std::string&>());
    if (!kind) return tl::unexpected(Error::unknownType(type->get<std::string>()));

    QlcopyEvent event;
    event.type = *kind;
    if (auto decoded = decodeFields(object, event); !decoded) return tl::unexpected(decoded.error());
    return std::optional<QlcopyEvent>(std::move(event));
}

Json QlcopyEvent::toJson() const {
    Json object = Json::object();
    object["type"] = std::string(kindName(type));
    auto put = [&](const auto& fields) {
        for (const auto& f : fields) {
            if (const auto& v = this->*f.member) object[f.key] = *v;
        }
    };
    put(kInt64Fields);
    put(kIntegerFlagFields);
    put(kInt32Fields);
    put(kDoubleFields);
    put(kBoolFields);
    put(kStringFields);
    if (metaReasons) object[kMetaReasonsKey] = *metaReasons;
    if (deferredPaths) object[kDeferredPathsKey] = *deferredPaths;
    return object;
}

}  // namespace ql
