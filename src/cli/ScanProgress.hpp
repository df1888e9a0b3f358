#pragma once

// The progress line of a log scan on stderr: a bar, files done, megabytes read of those to
// read, the rate and the time left. Drawn only where a person watches (stderr is a terminal)
// and once the scan has taken half a second; erased when the scan ends.

#include <chrono>
#include <functional>

#include "gaugepoint/importers/QuotaLogScanner.hpp"

namespace gaugepoint::cli {

class ScanProgress {
public:
    // Draws nothing unless `wanted` (not --quiet, not --json) and stderr is a terminal.
    explicit ScanProgress(bool wanted);
    ~ScanProgress();
    ScanProgress(const ScanProgress&) = delete;
    ScanProgress& operator=(const ScanProgress&) = delete;

    // What QuotaScanOptions::progress is set to: empty when nothing is drawn.
    std::function<void(const QuotaScanProgress&)> callback();

private:
    void update(const QuotaScanProgress& progress);

    bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point drawnAt_{};
};

}  // namespace gaugepoint::cli
