#include "gaugepoint/importers/QuotaLogScanner.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
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

// Loads the parser states of the tool's changed files that may go on from their position, and the
// marks of its databases. On a read connection of its own: the writer may hold the shared one
// for a whole batch meanwhile.
void loadParserStates(const QuotaSessionFileRegistry& registry, const std::string& sourceID, ToolFiles& tool) {
    std::vector<const std::pair<const std::string, QuotaSessionFileRegistryEntry>*> goOn;  // path, entry
    for (const auto& file : tool.files) {
        const auto found = tool.known.find(file.path.string());
        if (found == tool.known.end()) continue;
        if (!isUnchanged(*tool.tool, found->second, file) && keepsParserState(*tool.tool, found->second, file)) {
            goOn.push_back(&*found);
        }
    }
    if (goOn.empty()) return;
    registry.withReadConnection([&](sqlite::Connection& connection) {
        sqlite::StatementCache statements{connection};
        for (const auto* known : goOn) {
            QuotaSessionFileRegistryEntry key;
            key.path = known->first;
            key.sourceID = sourceID;
            key.providerID = tool.tool->provider().id;
            key.captureMode = known->second.captureMode;
            tool.states.emplace(known->first, QuotaUsageEntryStore::readOn(statements, key));
        }
    });
}

}  // namespace

QuotaLogScanner::QuotaLogScanner(QuotaSyncConfiguration configuration) : configuration_(std::move(configuration)) {}

QuotaScanSummary QuotaLogScanner::scan(const QuotaScanOptions& options) const {
    const auto directory = configuration_.resolvedAppGroupDirectory();
    if (!directory) throw QuotaSessionFileRegistryError::missingAppGroupContainer(configuration_.appGroupIdentifier);
    const auto lockWait = std::chrono::duration<double>(secondsSetting(configuration_, kLockWaitKey, kLockWaitSeconds));
    ScanLock lock{*directory / lockFilename, std::chrono::duration_cast<std::chrono::milliseconds>(lockWait)};
    const double quietLastLine = secondsSetting(configuration_, kQuietLastLineKey, kQuietLastLineSeconds);
    const std::string sourceID = configuration_.localSourceID();
    const QuotaSessionFileRegistry registry{configuration_};
    const QuotaSessionCatalogStore catalog{configuration_};
    const QuotaSessionImportStateStore states{configuration_};
    const ImportTuning tuning{registry, catalog};
    QuotaScanSummary summary, written;

    // The tools' homes are walked beside each other and beside the registry's listing (on an
    // unchanged tree these are the whole scan), and a tool's files are read as soon as its walk
    // is done.
    const auto& toolList = codingTools();
    std::vector<ToolFiles> tools(toolList.size());
    std::vector<std::vector<WalkProblem>> walkProblems(toolList.size());
    std::vector<std::exception_ptr> walkFailures(toolList.size());
    std::promise<void> listed;
    const std::shared_future<void> knownListed = listed.get_future().share();
    FileList files;
    ReadProgress progress{options};
    std::once_flag announced;
    std::atomic<std::size_t> walking{toolList.size()};
    std::vector<std::thread> walkers;
    for (std::size_t i = 0; i < toolList.size(); ++i) {
        tools[i].tool = toolList[i].get();
        const auto given = options.homes.find(toolList[i]->provider().id);
        auto homes = given != options.homes.end() ? given->second : toolList[i]->defaultHomes();
        walkers.emplace_back([&, i, homes = std::move(homes)] {
            try {
                tools[i].files = findLogFiles(*tools[i].tool, homes, walkProblems[i]);
                knownListed.get();
                loadParserStates(registry, sourceID, tools[i]);
                const std::int64_t toRead = bytesToRead(tools[i]);
                if (toRead > 0) std::call_once(announced, [&] { lock.announce(); });
                progress.add(std::int64_t(tools[i].files.size()), toRead);
                files.add(tools[i]);
            } catch (...) {
                walkFailures[i] = std::current_exception();
            }
            if (--walking == 0) files.finish();
        });
    }
    const auto joinWalkers = [&] {
        for (auto& walker : walkers) walker.join();
    };
    try {
        for (auto& tool : tools) {
            auto known = registry.positions(tool.tool->provider().id, options.capture, sourceID);
            tool.known.reserve(known.size());
            for (auto& entry : known) {
                std::string path = std::move(entry.path);  // kept once, as the key
                tool.known.emplace(std::move(path), std::move(entry));
            }
        }
        listed.set_value();
    } catch (...) {
        listed.set_exception(std::current_exception());
        joinWalkers();
        throw;
    }

    PieceQueue queue;
    const unsigned readerCount = std::clamp(std::thread::hardware_concurrency(), 1u, kMostReaders);
    std::vector<QuotaScanSummary> read(readerCount);
    std::vector<std::exception_ptr> readFailures(readerCount);
    std::atomic<unsigned> reading{readerCount};
    std::atomic<bool> writerFailed{false};
    // The checkpoints are a document of their own, written by the last reader to finish, beside
    // the writer's last batch. A tree just as the registry knows it (every file unchanged, none
    // gone) keeps those saved when it last changed, and a document of every file need not be
    // written. After a failed walk or read there is nothing whole to record.
    std::exception_ptr checkpointFailure;
    const auto writeCheckpoints = [&] {
        const auto failed = [](const auto& failures) {
            return std::any_of(failures.begin(), failures.end(), [](const auto& f) { return bool(f); });
        };
        if (writerFailed || failed(walkFailures) || failed(readFailures)) return;
        std::int64_t total = 0, unchanged = 0;
        std::size_t known = 0;
        for (const auto& tool : tools) {
            total += std::int64_t(tool.files.size());
            known += tool.known.size();
        }
        for (const auto& tally : read) unchanged += tally.filesUnchanged;
        if (unchanged == total && std::size_t(total) == known && std::filesystem::exists(states.documentURL())) return;
        try {
            updateCheckpoints(states, tools, sourceID, options.capture, configuration_.clock.now());
        } catch (...) {
            checkpointFailure = std::current_exception();
        }
    };
    std::vector<std::thread> readers;
    for (unsigned r = 0; r < readerCount; ++r) {
        readers.emplace_back([&, r] {
            try {
                readChangedFiles(options, sourceID, configuration_.clock.now(), quietLastLine, files, progress, queue,
                                 read[r]);
            } catch (...) {
                readFailures[r] = std::current_exception();
            }
            if (--reading == 0) {
                queue.finish();
                writeCheckpoints();
            }
        });
    }
    const auto joinReaders = [&] {
        for (auto& reader : readers) reader.join();
    };
    bool deferredIndexes = false;
    try {
        deferredIndexes = writePieces(registry, queue, written);
    } catch (...) {
        writerFailed = true;
        queue.abandon();
        while (queue.pop()) {
        }
        joinWalkers();
        files.finish();  // readers waiting for more files stop
        joinReaders();
        throw;
    }
    tuning.afterWriting();
    joinWalkers();
    joinReaders();
    for (const auto& failure : walkFailures) {
        if (failure) std::rethrow_exception(failure);
    }
    for (const auto& failure : readFailures) {
        if (failure) std::rethrow_exception(failure);
    }
    std::int64_t total = 0;
    for (std::size_t i = 0; i < tools.size(); ++i) {
        total += std::int64_t(tools[i].files.size());
        for (const auto& p : walkProblems[i]) {
            if (summary.problems.size() < kMaximumProblems) summary.problems.push_back({p.path.string(), std::nullopt, p.reason});
        }
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
    const QuotaUsageEntryStore usage{registry};
    // The registry's file only: beside the catalogue's work.
    const auto registryWork = [&](const QuarterSumsWait& quarterSums) {
        if (deferredIndexes) {
            usage.buildDeferredIndexes();
            registry.buildIndexes();
        }
        // After a first import every quarter is summed; publishing may have summed them already.
        if (deferredIndexes) {
            usage.refreshUsageQuarters(QuotaUsageEntryStore::Quarters::every, quarterSums ? quarterSums() : nullptr);
        } else {
            usage.refreshUsageQuarters();
        }
        // A first import leaves the whole store in the write-ahead log: copied into the file
        // here, beside the catalogue's writing, rather than when the process closes it.
        if (deferredIndexes) registry.walCheckpoint();
    };
    PublishTally published;
    // After a first import every session is new (until the catalogue has them all, even across
    // a stopped scan). A catalogue deleted or emptied since (by a person, a disk clean-up) is
    // written anew from the usage already stored: the logs it came from may be gone.
    if (usage.everySessionBehind() || catalog.totalCount(sourceID) == 0) {
        published = publishEverySession(usage, catalog, options.capture, registryWork);
    } else {
        registryWork(nullptr);
        published = publishDirtySessions(usage, catalog, options.capture);
    }
    if (checkpointFailure) std::rethrow_exception(checkpointFailure);
    summary.newSessions = published.newSessions;
    summary.updatedSessions = published.updatedSessions;
    if (options.progress) options.progress({total, total, summary.bytesRead, summary.bytesRead});
    return summary;
}

}  // namespace gaugepoint
