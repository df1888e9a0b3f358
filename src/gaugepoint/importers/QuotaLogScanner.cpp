#include "gaugepoint/importers/QuotaLogScanner.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/ImportTuning.hpp"
#include "gaugepoint/importers/LogFileReader.hpp"
#include "gaugepoint/importers/LogFileWalker.hpp"
#include "gaugepoint/importers/PieceWriter.hpp"
#include "gaugepoint/importers/ScanCheckpoints.hpp"
#include "gaugepoint/importers/ScanLock.hpp"
#include "gaugepoint/importers/SessionPublisher.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"
#include "gaugepoint/stores/SQLiteStatementCache.hpp"

namespace gaugepoint {
namespace {

using namespace scanning;

// Readers of log files at once (at most the cores there are): with the writer, two keep both
// cores of a small machine busy.
constexpr unsigned kMostReaders = 2;

// User defaults, in seconds: how long a scan waits for another to finish before it gives up
// (a stopped scan must not block every later command), and how long a complete last line
// without its newline must stay as it is before it counts (a tool may still be writing it).
constexpr std::string_view kLockWaitKey = "scan.lockWaitSeconds";
constexpr double kLockWaitSeconds = 5;
constexpr std::string_view kQuietLastLineKey = "scan.lastLineQuietSeconds";
constexpr double kQuietLastLineSeconds = 60;

double secondsSetting(const QuotaSyncConfiguration& configuration, std::string_view key, double fallback) {
    if (!configuration.userDefaults) return fallback;
    const auto value = configuration.userDefaults->value(key);
    if (!value || !value->is_number()) return fallback;
    const double seconds = value->to_number<double>();
    return seconds >= 0 && seconds < 86400 ? seconds : fallback;
}

// What the walk of one tool's homes found.
struct WalkedFiles {
    std::vector<LogFileCandidate> files;
    std::vector<WalkProblem> problems;
};

// Loads the parser states of the changed files that may go on from their position, and the marks
// of the databases, before any write starts (the writer holds the connection for whole batches).
void loadParserStates(const QuotaSessionFileRegistry& registry, const std::string& sourceID, std::vector<ToolFiles>& tools) {
    registry.withConnection([&](sqlite::Connection& connection) {
        sqlite::StatementCache statements{connection};
        for (auto& tool : tools) {
            for (const auto& file : tool.files) {
                const auto found = tool.known.find(file.path.string());
                if (found == tool.known.end()) continue;
                if (isUnchanged(*tool.tool, found->second, file) || !keepsParserState(*tool.tool, found->second, file)) continue;
                QuotaSessionFileRegistryEntry key;
                key.path = found->first;
                key.sourceID = sourceID;
                key.providerID = tool.tool->provider().id;
                key.captureMode = found->second.captureMode;
                tool.states.emplace(found->first, QuotaUsageEntryStore::readOn(statements, key));
            }
        }
    });
}

}  // namespace

QuotaLogScanner::QuotaLogScanner(QuotaSyncConfiguration configuration) : configuration_(std::move(configuration)) {}

QuotaScanSummary QuotaLogScanner::scan(const QuotaScanOptions& options) const {
    const auto directory = configuration_.resolvedAppGroupDirectory();
    if (!directory) throw QuotaSessionFileRegistryError::missingAppGroupContainer(configuration_.appGroupIdentifier);
    const auto lockWait = std::chrono::duration<double>(secondsSetting(configuration_, kLockWaitKey, kLockWaitSeconds));
    const ScanLock lock{*directory / lockFilename, std::chrono::duration_cast<std::chrono::milliseconds>(lockWait)};
    const double quietLastLine = secondsSetting(configuration_, kQuietLastLineKey, kQuietLastLineSeconds);
    const std::string sourceID = configuration_.localSourceID();
    const QuotaSessionFileRegistry registry{configuration_};
    const QuotaSessionCatalogStore catalog{configuration_};
    const QuotaSessionImportStateStore states{configuration_};
    const ImportTuning tuning{registry, catalog};
    QuotaScanSummary summary, written;

    // The tools' homes are walked beside each other and beside the registry's listing: on an
    // unchanged tree these are the whole scan.
    std::vector<std::future<WalkedFiles>> walks;
    for (const auto& tool : codingTools()) {
        const auto given = options.homes.find(tool->provider().id);
        auto homes = given != options.homes.end() ? given->second : tool->defaultHomes();
        walks.push_back(std::async(std::launch::async, [&tool = *tool, homes = std::move(homes)] {
            WalkedFiles walked;
            walked.files = findLogFiles(tool, homes, walked.problems);
            return walked;
        }));
    }
    std::vector<ToolFiles> tools;
    for (const auto& tool : codingTools()) {
        ToolFiles& files = tools.emplace_back();
        files.tool = tool.get();
        auto known = registry.positions(tool->provider().id, options.capture, sourceID);
        files.known.reserve(known.size());
        for (auto& entry : known) {
            std::string path = std::move(entry.path);  // kept once, as the key
            files.known.emplace(std::move(path), std::move(entry));
        }
    }
    std::int64_t total = 0;
    for (std::size_t i = 0; i < tools.size(); ++i) {
        auto walked = walks[i].get();
        tools[i].files = std::move(walked.files);
        total += std::int64_t(tools[i].files.size());
        for (const auto& p : walked.problems) {
            if (summary.problems.size() < kMaximumProblems) summary.problems.push_back({p.path.string(), std::nullopt, p.reason});
        }
    }

    loadParserStates(registry, sourceID, tools);
    const std::int64_t toRead = bytesToRead(tools);
    PieceQueue queue;
    FileList files{tools};
    ReadProgress progress{options, {0, total, 0, toRead}};
    const unsigned readerCount = std::clamp(std::thread::hardware_concurrency(), 1u, kMostReaders);
    std::vector<QuotaScanSummary> read(readerCount);
    std::vector<std::exception_ptr> readFailures(readerCount);
    std::atomic<unsigned> reading{readerCount};
    std::vector<std::thread> readers;
    for (unsigned r = 0; r < readerCount; ++r) {
        readers.emplace_back([&, r] {
            try {
                readChangedFiles(options, sourceID, configuration_.clock.now(), quietLastLine, files, progress, queue,
                                 read[r]);
            } catch (...) {
                readFailures[r] = std::current_exception();
            }
            if (--reading == 0) queue.finish();
        });
    }
    const auto joinReaders = [&] {
        for (auto& reader : readers) reader.join();
    };
    bool deferredIndexes = false;
    try {
        deferredIndexes = writePieces(registry, queue, written);
    } catch (...) {
        queue.abandon();
        while (queue.pop()) {
        }
        joinReaders();
        throw;
    }
    joinReaders();
    for (const auto& failure : readFailures) {
        if (failure) std::rethrow_exception(failure);
    }
    for (auto& tally : read) {
        summary.filesRead += tally.filesRead;
        summary.filesUnchanged += tally.filesUnchanged;
        summary.filesSkipped += tally.filesSkipped;
        summary.bytesRead += tally.bytesRead;
        for (auto& p : tally.problems) {
            if (summary.problems.size() < kMaximumProblems) summary.problems.push_back(std::move(p));
        }
    }

    summary.tokens = written.tokens;
    summary.linesSkipped = written.linesSkipped;
    for (auto& p : written.problems) {
        if (summary.problems.size() < kMaximumProblems) summary.problems.push_back(std::move(p));
    }
    // A tree just as the registry knows it (every file unchanged, none gone) keeps the
    // checkpoints saved when it last changed, and a document of every file need not be read.
    // They are a document of their own, written beside the registry's and catalogue's work.
    std::size_t known = 0;
    for (const auto& tool : tools) known += tool.known.size();
    std::future<void> checkpoints;
    if (summary.filesUnchanged != total || std::size_t(total) != known || !std::filesystem::exists(states.documentURL())) {
        checkpoints = std::async(std::launch::async, [&] {
            updateCheckpoints(states, tools, sourceID, options.capture, configuration_.clock.now());
        });
    }
    if (deferredIndexes) QuotaUsageEntryStore{registry}.buildDeferredIndexes();
    // A catalogue deleted or emptied since (by a person, a disk clean-up) is written anew from
    // the usage already stored: the logs it came from may be gone.
    if (catalog.totalCount(sourceID) == 0) QuotaUsageEntryStore{registry}.markEverySessionBehind();
    QuotaUsageEntryStore{registry}.refreshUsageQuarters();
    const auto published = publishDirtySessions(QuotaUsageEntryStore{registry}, catalog, options.capture);
    if (checkpoints.valid()) checkpoints.get();
    summary.newSessions = published.newSessions;
    summary.updatedSessions = published.updatedSessions;
    if (options.progress) options.progress({total, total, summary.bytesRead, std::max(toRead, summary.bytesRead)});
    return summary;
}

}  // namespace gaugepoint
