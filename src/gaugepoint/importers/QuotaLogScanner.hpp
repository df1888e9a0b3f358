#pragma once

// Fills the stores from the local logs of the coding tools: every log file is read once, and
// afterwards only what was appended. Per file the registry remembers how far it was read and
// what it looked like; the rows a read gives commit in the same transaction as that position,
// so a scan stopped at any moment (even killed) loses nothing and counts nothing twice. Sessions
// that changed are then written to the session catalogue.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>

#include "gaugepoint/model/QuotaSessionModes.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint {

// How far a scan is: files done of those found, and bytes read of those the changed files added
// since the last scan (what is left to read).
struct QuotaScanProgress {
    std::int64_t filesDone = 0;
    std::int64_t filesTotal = 0;
    std::int64_t bytesRead = 0;
    std::int64_t bytesToRead = 0;
};

struct QuotaScanOptions {
    // Home directories per provider id ("claude", "codex", "gemini"); a provider without an
    // entry uses its tool's own (environment variables, else the usual places).
    std::map<std::string, std::vector<std::filesystem::path>> homes;
    // How much text of the messages is kept.
    QuotaSessionContentCaptureMode capture = QuotaSessionContentCaptureMode::metadataOnly;
    // Called now and then (on a thread of the scan, one call at a time), and once at the end;
    // may be empty.
    std::function<void(const QuotaScanProgress&)> progress;
};

// A line or file the scan skipped, and why. `offset` is the line's first byte.
struct QuotaScanProblem {
    std::string path;
    std::optional<std::int64_t> offset;
    std::string reason;
    bool operator==(const QuotaScanProblem&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaScanProblem, (), (path, offset, reason))

struct QuotaScanSummary {
    std::int64_t filesRead = 0;       // opened and read (from the start or from where they ended)
    std::int64_t filesUnchanged = 0;  // as they were at the last scan: not opened
    std::int64_t filesSkipped = 0;    // could not be read (vanished, unreadable, too large)
    std::int64_t bytesRead = 0;
    std::int64_t newSessions = 0;
    std::int64_t updatedSessions = 0;
    std::int64_t tokens = 0;  // tokens counted by this scan
    std::int64_t linesSkipped = 0;
    std::vector<QuotaScanProblem> problems;  // the first 1,000
};
BOOST_DESCRIBE_STRUCT(QuotaScanSummary, (),
                      (filesRead, filesUnchanged, filesSkipped, bytesRead, newSessions, updatedSessions, tokens,
                       linesSkipped, problems))

class QuotaLogScanner {
public:
    static constexpr std::string_view lockFilename = "quota-session-scan.lock";

    explicit QuotaLogScanner(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard());

    // Scans every tool's logs. Bad lines and unreadable files are counted in the summary and the
    // rest is imported. A second scan at the same time waits for this one, at most the user
    // default scan.lockWaitSeconds (5), then throws ScanLockBusy. Throws gaugepoint::Error when
    // the stores cannot be written (no App Group directory, a damaged database).
    QuotaScanSummary scan(const QuotaScanOptions& options = {}) const;

private:
    QuotaSyncConfiguration configuration_;
};

}  // namespace gaugepoint
