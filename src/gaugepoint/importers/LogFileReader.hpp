#pragma once

// The reading side of a scan: which files changed since the registry saw them, and the threads
// that read and parse them into pieces for the writer.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "gaugepoint/importers/LogFileWalker.hpp"
#include "gaugepoint/importers/ScanPieces.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint::scanning {

// What one tool's scan starts from: its files as they are now, what the registry knows, and the
// parser's state of each changed file that may be read on from where it stopped.
struct ToolFiles {
    const CodingToolLogs* tool = nullptr;
    std::vector<LogFileCandidate> files;
    std::unordered_map<std::string, QuotaSessionFileRegistryEntry> known;
    std::unordered_map<std::string, QuotaUsageEntryStore::ReadOn> states;
};

// Whether the file is as the registry saw it last: then it is not opened at all.
bool isUnchanged(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file);

// Whether a changed file is read on from where the last read stopped (else from its start).
bool goesOn(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file);

// Whether a changed file's read needs what its last read left: the parser's state of an
// appended file read on, the marks of a database that is the same file read by the same rules.
bool keepsParserState(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file);

// The bytes a scan is to read of one tool: what its changed files added since they were read.
std::int64_t bytesToRead(const ToolFiles& tool);

// Every file the walks found, taken one at a time by the readers: a tool's files (in walk order)
// as soon as its walk is done, so reading starts while other homes are still walked.
class FileList {
public:
    // Adds the files of a tool whose walk is done; `tool` outlives the list.
    void add(const ToolFiles& tool);
    // No more tools will come.
    void finish();
    // The next file no reader has taken, waiting while walks go on (`beforeWaiting` runs first,
    // outside the list's lock); none at the end.
    std::optional<std::pair<const ToolFiles*, const LogFileCandidate*>> take(const std::function<void()>& beforeWaiting);

private:
    std::mutex mutex_;
    std::condition_variable added_;
    std::vector<std::pair<const ToolFiles*, const LogFileCandidate*>> files_;
    std::size_t next_ = 0;
    bool finished_ = false;
};

// The files done and bytes read of all readers, passed to the options' callback one call at a
// time, every 16 files.
class ReadProgress {
public:
    explicit ReadProgress(const QuotaScanOptions& options) : options_(options) {}
    // Files and bytes a walk added to the work (the totals grow while the walks go on).
    void add(std::int64_t files, std::int64_t bytes);
    void fileDone(std::int64_t bytesRead);

private:
    const QuotaScanOptions& options_;
    std::mutex mutex_;
    QuotaScanProgress progress_;
};

// Reads and parses the files of `files` that changed into pieces pushed to `queue`, a file at a
// time, until the list is done or the writer gives up; counts into `tally` (this reader's own).
// Several readers may share one list, queue and progress, each on its own thread.
// A complete last line without its newline counts once its file has not changed for
// `quietLastLine` seconds (by the system's clock, which file times are in).
void readChangedFiles(const QuotaScanOptions& options, const std::string& sourceID, Date now, double quietLastLine,
                      FileList& files, ReadProgress& progress, PieceQueue& queue, QuotaScanSummary& tally);

}  // namespace gaugepoint::scanning
