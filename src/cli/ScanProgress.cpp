#include "ScanProgress.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "CommandSupport.hpp"

namespace gaugepoint::cli {
namespace {

constexpr std::chrono::milliseconds kQuietStart{500};  // a scan shorter than this draws nothing
constexpr std::chrono::milliseconds kRedraw{100};      // the least time between two drawings
constexpr int kBarWidth = 24;

std::string duration(double seconds) {
    const auto s = static_cast<long long>(seconds + 0.5);
    if (s < 60) return std::to_string(s) + " s";
    return std::to_string(s / 60) + " min " + std::to_string(s % 60) + " s";
}

// The line for `p` after `elapsed` seconds, without the carriage return. The bar and the time left
// follow the bytes, which is where the time goes.
std::string line(const QuotaScanProgress& p, double elapsed) {
    const double part = p.bytesToRead > 0 ? std::min(1.0, double(p.bytesRead) / double(p.bytesToRead))
                        : p.filesTotal > 0 ? double(p.filesDone) / double(p.filesTotal)
                                           : 1.0;
    const int filled = int(part * kBarWidth);
    std::string text = "[" + std::string(std::size_t(filled), '#') + std::string(std::size_t(kBarWidth - filled), ' ') + "] ";
    text += groupedInteger(p.filesDone) + "/" + groupedInteger(p.filesTotal) + " files · " +
            groupedInteger(p.bytesRead >> 20) + "/" + groupedInteger(p.bytesToRead >> 20) + " MB";
    if (elapsed > 0 && p.bytesRead > 0) {
        const double rate = double(p.bytesRead) / elapsed;  // bytes per second
        text += " · " + groupedInteger(std::int64_t(rate) >> 20) + " MB/s";
        text += " · " + duration(double(std::max<std::int64_t>(0, p.bytesToRead - p.bytesRead)) / rate) + " left";
    }
    return text;
}

}  // namespace

ScanProgress::ScanProgress(bool wanted)
    : enabled_(wanted && ::isatty(STDERR_FILENO) == 1), start_(std::chrono::steady_clock::now()) {}

ScanProgress::~ScanProgress() {
    if (shown_) std::fputs("\r\033[K", stderr);
}

std::function<void(const QuotaScanProgress&)> ScanProgress::callback() {
    if (!enabled_) return {};
    return [this](const QuotaScanProgress& progress) { update(progress); };
}

void ScanProgress::update(const QuotaScanProgress& progress) {
    const auto now = std::chrono::steady_clock::now();
    const auto elapsed = now - start_;
    const bool last = progress.filesDone == progress.filesTotal;
    if (elapsed < kQuietStart || (now - drawnAt_ < kRedraw && !last)) return;
    shown_ = true;
    drawnAt_ = now;
    const std::string text = line(progress, std::chrono::duration<double>(elapsed).count());
    std::fprintf(stderr, "\r%s\033[K", text.c_str());
    std::fflush(stderr);
}

}  // namespace gaugepoint::cli
