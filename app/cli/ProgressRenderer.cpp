#include "app/cli/ProgressRenderer.h"

#include "app/core/DisplayFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace ql {

namespace {

// Columns a UTF-8 string takes, counting each code point as one.
int columns(const std::string& text) {
    int n = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80) ++n;
    }
    return n;
}

const RunPhase* activePhase(const Tile::RunningState& state) {
    for (const auto& p : state.phases) {
        if (p.state == PhaseState::active) return &p;
    }
    return nullptr;
}

}  // namespace

ProgressRenderer::ProgressRenderer(std::ostream& out, Options options) : out_(out), options_(std::move(options)) {}

std::string ProgressRenderer::bar(double fraction, int width) {
    fraction = std::clamp(std::isfinite(fraction) ? fraction : 0.0, 0.0, 1.0);
    const int filled = static_cast<int>(std::floor(fraction * width + 1e-9));
    return "[" + std::string(filled, '#') + std::string(width - filled, '-') + "]";
}

std::string ProgressRenderer::fitTail(const std::string& text, int width) {
    if (width <= 1 || columns(text) <= width) return text;
    // Drop code points from the front until the rest, with "…", fits.
    std::size_t cut = 0;
    int excess = columns(text) - (width - 1);
    while (excess > 0 && cut < text.size()) {
        ++cut;
        while (cut < text.size() && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) ++cut;
        --excess;
    }
    return "…" + text.substr(cut);
}

std::string ProgressRenderer::fitHead(const std::string& text, int width) {
    if (width <= 1 || columns(text) <= width) return text;
    // Keep code points from the front while they and "…" fit.
    std::size_t keep = 0;
    for (int kept = 0; kept < width - 1 && keep < text.size(); ++kept) {
        ++keep;
        while (keep < text.size() && (static_cast<unsigned char>(text[keep]) & 0xC0) == 0x80) ++keep;
    }
    return text.substr(0, keep) + "…";
}

std::string ProgressRenderer::figures(const Tile::RunningState& s) {
    std::vector<std::string> parts;
    if (s.isEstimating) {
        parts.push_back(s.filesCompleted ? DisplayFormat::count(s.filesCompleted, "file", "files") + " (calculating size)"
                                         : "(calculating size)");
    } else {
        parts.push_back(fmt::format("{}%", static_cast<int>(std::floor(s.overallProgress * 100.0 + 1e-9))));
    }
    if (s.ratePerSec) parts.push_back(DisplayFormat::rate(s.ratePerSec));
    if (!s.etaText.empty()) parts.push_back(s.etaText);
    std::string out;
    for (const auto& p : parts) {
        if (!out.empty()) out += " · ";
        out += p;
    }
    return out;
}

std::string ProgressRenderer::activity(const RunTracker& tracker) {
    const auto& tile = tracker.tile();
    if (tile.face == Tile::Face::queued) {
        if (!tracker.queuedBlockerTileID().empty()) return "Waiting in queue: another copy is using a drive this copy needs";
        return "Waiting in queue";
    }
    if (!tile.running) return "Starting";
    const auto& s = *tile.running;
    if (s.isCancelling) return "Cancelling…";
    if (s.isPaused) return "Paused";
    if (s.pausePending) return "Pausing…";
    if (s.statusHint && !RunTracker::isHint(*s.statusHint)) return *s.statusHint;
    if (s.deleteBackpressure) return "Deleting files…";
    if (s.dirsRetimeTotal > 0 && s.walkDone && !s.copyInFlight && s.dirsRetimeChecked < s.dirsRetimeTotal) {
        return fmt::format("Updating folder dates: {} of {}", s.dirsRetimeChecked, s.dirsRetimeTotal);
    }
    const RunPhase* phase = activePhase(s);
    if (!phase) {
        // Between phases: before the copy that is preparation, after it the finishing steps.
        const bool copied = std::any_of(s.phases.begin(), s.phases.end(), [](const RunPhase& p) {
            return (p.id == "files" || p.id == "replicate") && p.state != PhaseState::pending;
        });
        return copied ? "Finishing" : "Preparing";
    }
    for (const auto& step : phase->steps) {
        if (step.state == PhaseState::active && step.label() != phase->label()) return phase->label() + ": " + step.label();
    }
    return phase->label();
}

std::vector<std::string> ProgressRenderer::block(const RunTracker& tracker) const {
    std::vector<std::string> lines;
    const int width = std::max(20, options_.width);
    lines.push_back(fitTail(activity(tracker), width));
    const auto& tile = tracker.tile();
    if (tile.running) {
        const auto& s = *tile.running;
        const int barWidth = std::clamp(width / 3, 10, 40);
        // The bar and the percentage lead; what does not fit is cut from the end.
        lines.push_back(fitHead(bar(s.isEstimating ? 0.0 : s.overallProgress, barWidth) + " " + figures(s), width));
        const std::string& path = !s.currentPath.empty() ? s.currentPath : !s.copyPath.empty() ? s.copyPath : s.scanPath;
        lines.push_back(fitTail(path, width));
        if (s.stallNotice) {
            lines.push_back(fitTail(RunTracker::stallTitle(*s.stallNotice) + ": " + RunTracker::stallText(*s.stallNotice), width));
        }
        if (s.scanMode) {
            auto label = RunTracker::scanModeLabel(*s.scanMode);
            if (!label.empty()) lines.push_back(fitTail(label, width));
        }
    }
    return lines;
}

void ProgressRenderer::begin() {
    if (!options_.title.empty()) out_ << options_.title << "\n";
    out_.flush();
}

void ProgressRenderer::redraw(const std::vector<std::string>& lines) {
    std::string text;
    if (drawnLines_ > 0) text += fmt::format("\x1b[{}A", drawnLines_);
    for (const auto& line : lines) text += "\r\x1b[2K" + line + "\n";
    // Lines left over from a taller block are cleared.
    for (int i = static_cast<int>(lines.size()); i < drawnLines_; ++i) text += "\r\x1b[2K\n";
    const int drawn = std::max(drawnLines_, static_cast<int>(lines.size()));
    if (drawn > static_cast<int>(lines.size())) text += fmt::format("\x1b[{}A", drawn - static_cast<int>(lines.size()));
    drawnLines_ = static_cast<int>(lines.size());
    out_ << text;
    out_.flush();
}

void ProgressRenderer::note(const std::string& text) {
    if (options_.terminal && drawnLines_ > 0) {
        out_ << fmt::format("\x1b[{}A", drawnLines_);
        for (int i = 0; i < drawnLines_; ++i) out_ << "\r\x1b[2K\n";
        out_ << fmt::format("\x1b[{}A", drawnLines_);
        drawnLines_ = 0;
    }
    out_ << text << "\n";
    out_.flush();
}

void ProgressRenderer::update(const RunTracker& tracker, RunTracker::Change change, Clock::time_point now) {
    if (change == RunTracker::Change::none || change == RunTracker::Change::ended) return;
    if (options_.terminal) {
        const bool urgent = change != RunTracker::Change::progress && change != RunTracker::Change::log;
        if (!urgent && now - lastDraw_ < std::chrono::milliseconds(100)) return;
        if (change == RunTracker::Change::log) return;
        lastDraw_ = now;
        redraw(block(tracker));
        return;
    }

    // Plain: what changed, one line each.
    const auto what = activity(tracker);
    if (what != lastActivity_) {
        // Back from one of its steps to the phase itself ("Preparing destination: Mounting
        // volumes" → "Preparing destination") says nothing new.
        const bool backFromStep = lastActivity_.starts_with(what + ": ");
        lastActivity_ = what;
        if (!backFromStep) out_ << what << "\n";
    }
    const auto& tile = tracker.tile();
    if (!tile.running) {
        out_.flush();
        return;
    }
    const auto& s = *tile.running;
    const std::string stall =
        s.stallNotice ? RunTracker::stallTitle(*s.stallNotice) + ": " + RunTracker::stallText(*s.stallNotice) : "";
    if (stall != lastStall_) {
        lastStall_ = stall;
        if (!stall.empty()) out_ << stall << "\n";
    }
    if (change == RunTracker::Change::progress) {
        const int percent = s.isEstimating ? -1 : static_cast<int>(std::floor(s.overallProgress * 100.0 + 1e-9));
        if (percent != lastPercent_ && now - lastProgressLine_ >= std::chrono::seconds(1)) {
            lastPercent_ = percent;
            lastProgressLine_ = now;
            std::string line = "  " + figures(s);
            if (!s.currentPath.empty()) line += " · " + s.currentPath;
            out_ << line << "\n";
        }
    }
    out_.flush();
}

std::vector<std::string> ProgressRenderer::summary(const RunTracker& tracker, bool dryRun) {
    std::vector<std::string> lines;
    const auto& run = tracker.lastRun();
    if (!run) {
        lines.push_back("The copy ended without a result from the server.");
        return lines;
    }
    using Outcome = Tile::HistoryRun::Outcome;
    switch (run->outcome) {
        case Outcome::ok: {
            lines.push_back(dryRun ? "Dry run complete: nothing was changed." : "Copy complete.");
            const std::string verb = dryRun ? "Would copy" : "Copied";
            lines.push_back(fmt::format("{} {} ({}), updated {}, deleted {}; checked {} ({}) in {}.", verb,
                                        DisplayFormat::count(run->filesCopied, "item", "items"), run->bytesText,
                                        run->filesUpdated, run->filesDeleted,
                                        DisplayFormat::count(run->itemsEvaluated, "item", "items"),
                                        DisplayFormat::bytes(run->bytesEvaluated), run->durationText));
            if (run->deferredCount == 1) {
                lines.push_back("One file couldn't be read while the screen was locked—it'll be copied automatically "
                                "in a follow-up run.");
            } else if (run->deferredCount > 1) {
                lines.push_back(fmt::format("{} files couldn't be read while the screen was locked—they'll be copied "
                                            "automatically in a follow-up run.",
                                            run->deferredCount));
            }
            break;
        }
        case Outcome::cancelled: {
            lines.push_back("Copy cancelled.");
            const auto* state = tracker.lastState();
            const bool copiedSomething = state && (state->bytesCopied > 0 || state->filesCompleted > 0);
            if (!copiedSomething) {
                lines.push_back("Cancelled before any data was copied.");
            } else {
                lines.push_back(fmt::format("Stopped after {}% of the copy.",
                                            static_cast<int>(std::floor(state->overallProgress * 100.0))));
            }
            break;
        }
        case Outcome::failed:
        case Outcome::skipped: {
            lines.push_back("Copy failed: " + (run->reason.empty() ? std::string("the server gave no reason.") : run->reason));
            if (run->failure) {
                if (run->failure->count > 1 && !run->failure->path.empty()) {
                    lines.push_back(fmt::format("There were {} problems, starting with: {}", run->failure->count,
                                                run->failure->path));
                } else if (!run->failure->path.empty()) {
                    lines.push_back("Last file seen before the failure: " + run->failure->path);
                }
            }
            if (!tracker.failedStepMessage().empty() && tracker.failedStepMessage() != run->reason) {
                lines.push_back(tracker.failedStepMessage());
            }
            break;
        }
    }
    return lines;
}

void ProgressRenderer::finish(const RunTracker& tracker) {
    if (options_.terminal && drawnLines_ > 0) {
        out_ << fmt::format("\x1b[{}A", drawnLines_);
        for (int i = 0; i < drawnLines_; ++i) out_ << "\r\x1b[2K\n";
        out_ << fmt::format("\x1b[{}A", drawnLines_);
        drawnLines_ = 0;
    }
    for (const auto& line : summary(tracker, options_.dryRun)) out_ << line << "\n";
    out_.flush();
}

}  // namespace ql
