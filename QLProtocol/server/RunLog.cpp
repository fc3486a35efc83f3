#include "QLProtocol/server/RunLog.h"

#include <fmt/format.h>

#include <algorithm>

namespace ql {
namespace v1 = ql4::transport::v1;

namespace {

const char* flag(bool value) { return value ? "true" : "false"; }

}  // namespace

RunLog::RunLog(std::string label, std::size_t lineCap) : label_(std::move(label)) {
    lineCap = std::max<std::size_t>(lineCap, 2);
    headCap_ = std::max<std::size_t>(lineCap / 4, 1);
    tailCap_ = lineCap - headCap_;
}

void RunLog::append(const std::string& text) {
    std::string line = label_;
    line.push_back(' ');
    line.append(text);
    if (head_.size() < headCap_) {
        head_.push_back(std::move(line));
        return;
    }
    if (tail_.size() == tailCap_) {
        tail_.pop_front();
        ++dropped_;
    }
    tail_.push_back(std::move(line));
}

void RunLog::appendEvent(const v1::ClonerEvent& event) {
    if (auto words = describe(event)) append(*words);
}

std::optional<std::string> RunLog::describe(const v1::ClonerEvent& event) {
    switch (event.payload_case()) {
        case v1::ClonerEvent::kQueued:
            if (event.queued().blocking_tile_id().empty())
                return fmt::format("queued at position {}", event.queued().position_in_queue());
            return fmt::format("queued at position {} behind tile {}", event.queued().position_in_queue(),
                               event.queued().blocking_tile_id());
        case v1::ClonerEvent::kStarted: return "started";
        case v1::ClonerEvent::kPhaseStart: return "phaseStart: " + event.phase_start().name();
        case v1::ClonerEvent::kPhaseEnd:
            return fmt::format("phaseEnd: {} succeeded={}", event.phase_end().name(), flag(event.phase_end().succeeded()));
        case v1::ClonerEvent::kProgress: return std::nullopt;
        case v1::ClonerEvent::kLog: return event.log().text();
        case v1::ClonerEvent::kCompleted:
            return fmt::format("completed elapsedNanos={} bytesCopied={}", event.completed().elapsed_nanos(),
                               event.completed().bytes_copied());
        case v1::ClonerEvent::kFailed: return "failed: " + event.failed().error_message();
        case v1::ClonerEvent::kCancelled: return "cancelled";
        case v1::ClonerEvent::kPaused: return "paused";
        case v1::ClonerEvent::kResumed: return "resumed";
        case v1::ClonerEvent::kStepStart:
            return fmt::format("stepStart: {}/{}", event.step_start().phase_name(), event.step_start().name());
        case v1::ClonerEvent::kStepEnd: {
            const auto& s = event.step_end();
            std::string line = fmt::format("stepEnd: {}/{} succeeded={}", s.phase_name(), s.name(), flag(s.succeeded()));
            if (!s.error_message().empty()) line += " error=" + s.error_message();
            return line;
        }
        case v1::ClonerEvent::kPauseRequested: return "pauseRequested";
        case v1::ClonerEvent::kScanMode:
            return fmt::format("scanMode: {} reason={}", v1::ScanMode::Mode_Name(event.scan_mode().mode()),
                               v1::ScanMode::Reason_Name(event.scan_mode().reason()));
        case v1::ClonerEvent::kPreviewItem: return std::nullopt;
        case v1::ClonerEvent::kAwaitingUnlock: return "awaitingUnlock: " + event.awaiting_unlock().display_name();
        case v1::ClonerEvent::kAwaitingEncryptionPassphrase:
            return "awaitingEncryptionPassphrase: " + event.awaiting_encryption_passphrase().display_name();
        case v1::ClonerEvent::kEncryptDestination:
            return fmt::format("encryptDestination: {} bsd={}", event.encrypt_destination().display_name(),
                               event.encrypt_destination().bsd_device());
        case v1::ClonerEvent::kAwaitingConnect:
            return fmt::format("awaitingConnect: {} source={}", event.awaiting_connect().display_name(),
                               flag(event.awaiting_connect().is_source()));
        case v1::ClonerEvent::kAwaitingImagePassphrase:
            return fmt::format("awaitingImagePassphrase: {} image={}", event.awaiting_image_passphrase().display_name(),
                               event.awaiting_image_passphrase().image_name());
        case v1::ClonerEvent::kImageProbeResult: {
            const auto& r = event.image_probe_result();
            return fmt::format("imageProbeResult: writable={} encrypted={} alreadyAttached={}", flag(r.writable()),
                               flag(r.encrypted()), flag(r.was_already_attached()));
        }
        case v1::ClonerEvent::PAYLOAD_NOT_SET: return "event of a kind this server does not know";
    }
    return std::nullopt;
}

std::vector<std::string> RunLog::lines() const {
    std::vector<std::string> out(head_.begin(), head_.end());
    if (dropped_ > 0) out.push_back(gapLine(dropped_));
    out.insert(out.end(), tail_.begin(), tail_.end());
    return out;
}

std::string RunLog::text() const {
    std::string out;
    for (const auto& line : lines()) {
        out += line;
        out.push_back('\n');
    }
    return out;
}

std::optional<std::size_t> RunLog::droppedGapIndex() const {
    if (dropped_ == 0) return std::nullopt;
    return head_.size();
}

std::string RunLog::gapLine(std::size_t count) { return fmt::format("[… {} log lines omitted here …]", count); }

}  // namespace ql
