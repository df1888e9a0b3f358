#include "gaugepoint/importers/QuotaLogScanner.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/importers/LogFileWalker.hpp"
#include "gaugepoint/importers/SessionPublisher.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"
#include "gaugepoint/stores/SQLiteStatementCache.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;

// Lines are read in pieces of this size; a line longer than one piece is skipped. Memory stays
// within a few pieces whatever the files hold.
constexpr std::size_t kPieceBytes = std::size_t(32) << 20;
constexpr std::size_t kMaximumProblems = 1000;
// Readers of log files at once (at most the cores there are): with the writer, two keep both
// cores of a small machine busy.
constexpr unsigned kMostReaders = 2;

// Held for the whole scan: a second scan (a timer and a person) waits for the first.
class ScanLock {
public:
    explicit ScanLock(const fs::path& file) {
        fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0 || ::flock(fd_, LOCK_EX) != 0) {
            const int error = errno;
            if (fd_ >= 0) ::close(fd_);
            throw Error("cannot lock " + file.string() + ": " + std::strerror(error));
        }
    }
    ~ScanLock() { ::close(fd_); }
    ScanLock(const ScanLock&) = delete;
    ScanLock& operator=(const ScanLock&) = delete;

private:
    int fd_ = -1;
};

class ReadableFile {
public:
    explicit ReadableFile(const fs::path& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~ReadableFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    ReadableFile(const ReadableFile&) = delete;
    ReadableFile& operator=(const ReadableFile&) = delete;
    bool isOpen() const { return fd_ >= 0; }
    int fd() const { return fd_; }

private:
    int fd_;
};

// What one read of a file gave, waiting for its transaction. Under metadataOnly only the prompts
// are kept (without text): with the counted responses they give a session's message and prompt
// counts, without a row per log line.
class Collected final : public LogRecordSink {
public:
    Collected(std::string path, QuotaSessionContentCaptureMode capture)
        : path_(std::move(path)), promptsOnly_(capture == QuotaSessionContentCaptureMode::metadataOnly) {}

    void usage(QuotaUsageEntry entry) override { usage_.push_back(std::move(entry)); }
    void message(QuotaImportedMessage message) override {
        if (firstSession_.empty()) firstSession_ = message.sessionID;
        if (promptsOnly_ && !message.isPrompt) return;
        messages_.push_back(std::move(message));
    }
    void session(const std::string& sessionID, const std::string& projectPath) override {
        if (firstSession_.empty()) firstSession_ = sessionID;
        sessions_.emplace_back(sessionID, projectPath);
    }
    void rateLimits(QuotaObservedRateLimits limits) override {
        if (!limits_ || limits.observedAt > limits_->observedAt) limits_ = std::move(limits);
    }
    void badLine(std::int64_t offset, std::string reason) override { bad_.push_back({path_, offset, std::move(reason)}); }

    void clear() {
        usage_.clear();
        messages_.clear();
        sessions_.clear();
        limits_.reset();
        bad_.clear();
    }

    std::vector<QuotaUsageEntry> usage_;
    std::vector<QuotaImportedMessage> messages_;
    std::vector<std::pair<std::string, std::string>> sessions_;
    std::optional<QuotaObservedRateLimits> limits_;
    std::vector<QuotaScanProblem> bad_;
    std::string firstSession_;

private:
    std::string path_;
    bool promptsOnly_;
};

Date modificationTime(const struct stat& info) {
#if defined(__APPLE__)
    const auto& time = info.st_mtimespec;
#else
    const auto& time = info.st_mtim;
#endif
    return dateFromSeconds(double(time.tv_sec) + double(time.tv_nsec) / 1e9);
}

std::string identityOf(const struct stat& info) {
    return std::to_string(std::uint64_t(info.st_dev)) + ":" + std::to_string(std::uint64_t(info.st_ino));
}

// One read of one file, parsed and waiting for its transaction.
struct Piece {
    const CodingToolLogs* tool = nullptr;
    QuotaSessionFileRegistryEntry entry;   // the file's entry as this piece leaves it
    std::optional<std::int64_t> expected;  // the position the registry must still hold
    bool forgetFirst = false;              // what the file gave before is replaced
    std::string state;                     // the parser's state after this piece
    std::unique_ptr<Collected> records;
    std::int64_t bytes = 0;                // of the file, read for this piece
};

// Hands pieces from the reading thread to the writing one. It holds pieces of up to 64 MiB of
// files at once (one piece of any size when empty), so memory stays bounded whatever the files
// hold, while many small files' pieces can wait for the writer and keep the reader going.
class PieceQueue {
public:
    // Waits for room; false when the writer has given up.
    bool push(Piece piece) {
        std::unique_lock lock{mutex_};
        roomLeft_.wait(lock, [&] {
            return abandoned_ || pieces_.empty() || (pieces_.size() < kMostPieces && bytes_ + piece.bytes <= kMostBytes);
        });
        if (abandoned_) return false;
        bytes_ += piece.bytes;
        pieces_.push_back(std::move(piece));
        ready_.notify_one();
        return true;
    }
    // The next piece; none once the reader has finished and everything was taken.
    std::optional<Piece> pop() {
        std::unique_lock lock{mutex_};
        ready_.wait(lock, [&] { return !pieces_.empty() || finished_; });
        if (pieces_.empty()) return std::nullopt;
        Piece piece = std::move(pieces_.front());
        pieces_.pop_front();
        bytes_ -= piece.bytes;
        roomLeft_.notify_one();
        return piece;
    }
    void finish() {
        std::lock_guard lock{mutex_};
        finished_ = true;
        ready_.notify_all();
    }
    void abandon() {
        std::lock_guard lock{mutex_};
        abandoned_ = true;
        roomLeft_.notify_all();
    }

private:
    static constexpr std::size_t kMostPieces = 256;
    static constexpr std::int64_t kMostBytes = std::int64_t(64) << 20;
    std::mutex mutex_;
    std::condition_variable ready_, roomLeft_;
    std::deque<Piece> pieces_;
    std::int64_t bytes_ = 0;
    bool finished_ = false, abandoned_ = false;
};

// What the walk of one tool's homes found.
struct WalkedFiles {
    std::vector<LogFileCandidate> files;
    std::vector<WalkProblem> problems;
};

// What one tool's scan starts from: its files as they are now, what the registry knows, and the
// parser's state of each changed file that may be read on from where it stopped.
struct ToolFiles {
    const CodingToolLogs* tool = nullptr;
    std::vector<LogFileCandidate> files;
    std::unordered_map<std::string, QuotaSessionFileRegistryEntry> known;
    std::unordered_map<std::string, std::string> states;
};

// Whether the file is as the registry saw it last: then it is not opened at all.
bool isUnchanged(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) {
    return entry.parserVersion == tool.parserVersion() && entry.fileIdentifier == file.identity &&
           entry.size == file.size && entry.modifiedAt == file.modifiedAt;
}

// Whether a changed file is read on from where the last read stopped (else from its start).
bool goesOn(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) {
    return file.layout == LogLayout::appendedLines && entry.lastOffset > 0 && entry.parserVersion == tool.parserVersion() &&
           entry.fileIdentifier == file.identity && entry.lastOffset <= file.size;
}

// The bytes a scan is to read: what the changed files added since they were read.
std::int64_t bytesToRead(const std::vector<ToolFiles>& tools) {
    std::int64_t bytes = 0;
    for (const auto& tool : tools) {
        for (const auto& file : tool.files) {
            const auto found = tool.known.find(file.path.string());
            if (found == tool.known.end()) {
                bytes += file.size;
            } else if (!isUnchanged(*tool.tool, found->second, file)) {
                bytes += file.size - (goesOn(*tool.tool, found->second, file) ? found->second.lastOffset : 0);
            }
        }
    }
    return bytes;
}

// Loads the parser states of the changed files that may go on from their position, before any
// write starts (the writer holds the connection for whole batches).
void loadParserStates(const QuotaSessionFileRegistry& registry, const std::string& sourceID, std::vector<ToolFiles>& tools) {
    registry.withConnection([&](sqlite::Connection& connection) {
        sqlite::StatementCache statements{connection};
        for (auto& tool : tools) {
            for (const auto& file : tool.files) {
                const auto found = tool.known.find(file.path.string());
                if (found == tool.known.end()) continue;
                if (isUnchanged(*tool.tool, found->second, file) || !goesOn(*tool.tool, found->second, file)) continue;
                QuotaSessionFileRegistryEntry key;
                key.path = found->first;
                key.sourceID = sourceID;
                key.providerID = tool.tool->provider().id;
                key.captureMode = found->second.captureMode;
                tool.states.emplace(found->first, QuotaUsageEntryStore::parserState(statements, key));
            }
        }
    });
}

// Every file the walk found, in walk order, taken one at a time by the readers.
class FileList {
public:
    explicit FileList(const std::vector<ToolFiles>& tools) {
        for (const auto& tool : tools) {
            for (const auto& file : tool.files) files_.emplace_back(&tool, &file);
        }
    }
    // The next file no reader has taken; none at the end.
    std::optional<std::pair<const ToolFiles*, const LogFileCandidate*>> take() {
        const std::size_t at = next_++;
        if (at >= files_.size()) return std::nullopt;
        return files_[at];
    }

private:
    std::vector<std::pair<const ToolFiles*, const LogFileCandidate*>> files_;
    std::atomic<std::size_t> next_{0};
};

// The files done and bytes read of all readers, passed to the options' callback one call at a
// time, every 16 files.
class ReadProgress {
public:
    ReadProgress(const QuotaScanOptions& options, QuotaScanProgress start) : options_(options), progress_(start) {}

    void fileDone(std::int64_t bytesRead) {
        if (!options_.progress) return;
        std::lock_guard lock{mutex_};
        progress_.bytesRead += bytesRead;
        if (++progress_.filesDone % 16 == 0) options_.progress(progress_);
    }

private:
    const QuotaScanOptions& options_;
    std::mutex mutex_;
    QuotaScanProgress progress_;
};

// Reads and parses the files that changed into pieces. Readers run on threads of their own, a
// file each at a time, while the scan's thread writes the pieces: parsing and SQLite then share
// the cores, and a reader waiting for a file does not hold the others up. A file's pieces are
// queued in order by the one reader that took it.
class FileReader {
public:
    FileReader(const QuotaScanOptions& options, const std::string& sourceID, Date now, PieceQueue& queue,
               QuotaScanSummary& tally)
        : options_(options), sourceID_(sourceID), queue_(queue), tally_(tally), now_(now) {}

    void readAll(FileList& files, ReadProgress& progress) {
        while (const auto next = files.take()) {
            const auto& [tool, file] = *next;
            const auto found = tool->known.find(file->path.string());
            const QuotaSessionFileRegistryEntry* entry = found == tool->known.end() ? nullptr : &found->second;
            const std::int64_t before = tally_.bytesRead;
            if (entry && isUnchanged(*tool->tool, *entry, *file)) {
                ++tally_.filesUnchanged;
            } else if (!read(*tool, *file, entry)) {
                return;  // the writer gave up
            }
            progress.fileDone(tally_.bytesRead - before);
        }
    }

private:
    void skipped(const std::string& path, std::string reason) {
        ++tally_.filesSkipped;
        if (tally_.problems.size() < kMaximumProblems) tally_.problems.push_back({path, std::nullopt, std::move(reason)});
    }

    // False when the writer gave up.
    bool read(const ToolFiles& files, const LogFileCandidate& file, const QuotaSessionFileRegistryEntry* entry) {
        const CodingToolLogs& tool = *files.tool;
        const std::string path = file.path.string();
        ReadableFile opened{file.path};
        struct stat info {};
        if (!opened.isOpen() || ::fstat(opened.fd(), &info) != 0) {
            skipped(path, errno == ENOENT ? "vanished before it could be read" : std::strerror(errno));
            return true;
        }
        Piece piece;
        piece.tool = &tool;
        piece.entry.path = path;
        piece.entry.sourceID = sourceID_;
        piece.entry.providerID = tool.provider().id;
        piece.entry.captureMode = options_.capture;
        piece.entry.parserVersion = tool.parserVersion();
        piece.entry.fileIdentifier = identityOf(info);
        piece.entry.updatedAt = now_;
        piece.expected = entry ? std::optional(entry->lastOffset) : std::nullopt;
        // A file read before by these rules, the same file and not cut short, is read on from
        // where the last read stopped; anything else is read again from the start, and what it
        // gave before is replaced.
        const bool readsOn = entry && file.layout == LogLayout::appendedLines && entry->parserVersion == tool.parserVersion() &&
                            entry->fileIdentifier == piece.entry.fileIdentifier &&
                            entry->lastOffset <= std::int64_t(info.st_size);
        piece.forgetFirst = entry && !readsOn;
        ++tally_.filesRead;
        if (file.layout == LogLayout::wholeDocument) return readDocument(opened, std::move(piece));
        const std::int64_t offset = readsOn ? entry->lastOffset : 0;
        if (offset > 0) {
            const auto state = files.states.find(path);
            if (state != files.states.end()) piece.state = state->second;
        }
        return readLines(opened, std::move(piece), offset);
    }

    bool readDocument(ReadableFile& opened, Piece piece) {
        std::string text;
        try {
            text = readInputFile(piece.entry.path, InputLimit::document("a chat document"));
        } catch (const Error& e) {
            --tally_.filesRead;
            skipped(piece.entry.path, e.what());
            return true;
        }
        tally_.bytesRead += std::int64_t(text.size());
        const std::size_t size = text.size();
        text.resize(size + kJsonPadding);
        piece.records = std::make_unique<Collected>(piece.entry.path, options_.capture);
        const LogFileContext context{piece.entry.path, options_.capture, &parser_};
        piece.tool->parseDocument(std::string_view(text.data(), size), context, *piece.records);
        struct stat info {};
        ::fstat(opened.fd(), &info);
        piece.entry.lastOffset = std::int64_t(size);
        piece.bytes = std::int64_t(size);
        piece.entry.size = std::int64_t(info.st_size);
        piece.entry.modifiedAt = modificationTime(info);
        piece.forgetFirst = true;  // a document is read whole: what it gave before is replaced
        return queue_.push(std::move(piece));
    }

    // Reads complete lines from `offset` in pieces, each ending after its last complete line. A
    // last line without its newline is left for the next scan. Every piece but the last leaves
    // the entry's size unknown, so a scan stopped in between reads on from its position.
    bool readLines(ReadableFile& opened, Piece piece, std::int64_t offset) {
        if (::lseek(opened.fd(), off_t(offset), SEEK_SET) < 0) {
            skipped(piece.entry.path, std::strerror(errno));
            return true;
        }
        // Made on the first file that needs reading and left uninitialised, so a scan of an
        // unchanged tree touches none of it.
        if (!buffer_) buffer_.reset(new char[kPieceBytes + kJsonPadding]);
        const LogFileContext context{piece.entry.path, options_.capture, &parser_};
        std::size_t used = 0;           // bytes in the buffer, starting at file position `offset`
        std::int64_t pieceStart = offset;
        bool skippingLongLine = false;  // inside a line longer than a piece
        auto records = std::make_unique<Collected>(piece.entry.path, options_.capture);
        std::vector<LogLine> lines;
        for (;;) {
            const ssize_t n = ::read(opened.fd(), buffer_.get() + used, kPieceBytes - used);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                records->badLine(offset, std::string("reading stopped: ") + std::strerror(errno));
                break;
            }
            used += std::size_t(n);
            tally_.bytesRead += n;
            const bool atEnd = n == 0 || used < kPieceBytes;
            const std::string_view data(buffer_.get(), used);
            const auto lastNewline = data.rfind('\n');
            if (lastNewline == std::string_view::npos) {
                if (n == 0) break;
                if (used < kPieceBytes) continue;
                // A piece without a newline: a line longer than any real one, skipped up to its end.
                if (!skippingLongLine) records->badLine(offset, "a line longer than 32 MiB");
                skippingLongLine = true;
                offset += std::int64_t(used);
                used = 0;
                continue;
            }
            std::size_t pos = skippingLongLine ? data.find('\n') + 1 : 0;
            skippingLongLine = false;
            lines.clear();
            while (pos <= lastNewline) {
                const std::size_t end = data.find('\n', pos);
                const std::string_view line = data.substr(pos, end - pos);
                if (line.find_first_not_of(" \t\r") != std::string_view::npos) lines.push_back({line, offset + std::int64_t(pos)});
                pos = end + 1;
            }
            piece.tool->parseLines(lines, context, piece.state, *records);
            offset += std::int64_t(lastNewline + 1);
            std::memmove(buffer_.get(), buffer_.get() + lastNewline + 1, used - (lastNewline + 1));
            used -= lastNewline + 1;
            if (atEnd) break;
            Piece next = followOn(piece, offset);
            piece.bytes = offset - pieceStart;
            pieceStart = offset;
            piece.entry.lastOffset = offset;
            piece.entry.size.reset();
            piece.records = std::exchange(records, std::make_unique<Collected>(piece.entry.path, options_.capture));
            if (!queue_.push(std::exchange(piece, std::move(next)))) return false;
        }
        struct stat info {};
        ::fstat(opened.fd(), &info);
        piece.entry.lastOffset = offset;
        piece.bytes = offset - pieceStart;
        piece.entry.size = std::int64_t(info.st_size);
        piece.entry.modifiedAt = modificationTime(info);
        piece.records = std::move(records);
        return queue_.push(std::move(piece));
    }

    // The piece that follows `piece` once it ends at `offset`.
    static Piece followOn(const Piece& piece, std::int64_t offset) {
        Piece next;
        next.tool = piece.tool;
        next.entry = piece.entry;
        next.expected = offset;
        next.state = piece.state;
        return next;
    }

    const QuotaScanOptions& options_;
    const std::string& sourceID_;
    PieceQueue& queue_;
    QuotaScanSummary& tally_;
    Date now_;
    std::unique_ptr<char[]> buffer_;
    JsonLineParser parser_;
};

// Writes pieces in order: a piece's rows, the parser's state and the file's new position. Pieces
// are written in batches, one transaction each, so the rows and positions of a whole batch commit
// together (a scan stopped in between loses the batch and counts none of it twice). Another scan
// that moved a file's position in between wins: that piece and the rest of its file are skipped.
class PieceWriter {
public:
    PieceWriter(const QuotaSessionFileRegistry& registry, QuotaScanSummary& tally) : registry_(registry), tally_(tally) {}

    // Writes every piece the queue gives until the reader has finished.
    void writeAll(PieceQueue& queue) {
        auto next = queue.pop();
        while (next) {
            registry_.inTransaction("import logs", [&](sqlite::Connection& connection) {
                sqlite::StatementCache statements{connection};
                if (!checkedEmpty_) {
                    if (QuotaUsageEntryStore::hasNoEntries(statements)) {
                        sinceEmpty_.emplace();
                        QuotaUsageEntryStore::deferIndexes(connection);
                    }
                    checkedEmpty_ = true;
                }
                if (sinceEmpty_) QuotaUsageEntryStore::beginBulkBatch(connection);
                const auto started = std::chrono::steady_clock::now();
                for (std::size_t written = 1;; ++written) {
                    write(statements, *next);
                    next.reset();
                    if (written >= kBatchPieces || std::chrono::steady_clock::now() - started >= kBatchTime) break;
                    if (!(next = queue.pop())) break;
                }
                if (sinceEmpty_) QuotaUsageEntryStore::endBulkBatch(connection);
            });
            if (!next) next = queue.pop();
        }
    }

    // Whether the import started into empty entries, its indexes by file and session deferred.
    bool deferredIndexes() const { return sinceEmpty_.has_value(); }

private:
    // A batch ends after this many pieces or this long, whichever comes first: few commits, and
    // little work lost when a scan is stopped.
    static constexpr std::size_t kBatchPieces = 10000;
    static constexpr std::chrono::milliseconds kBatchTime{2000};

    void write(sqlite::StatementCache& statements, Piece& piece) {
        Collected& records = *piece.records;
        tally_.linesSkipped += std::int64_t(records.bad_.size());
        for (auto& bad : records.bad_) {
            if (tally_.problems.size() < kMaximumProblems) tally_.problems.push_back(std::move(bad));
        }
        if (abandonedPath_ == piece.entry.path) return;
        if (!records.firstSession_.empty()) piece.entry.sessionID = records.firstSession_;
        const auto& e = piece.entry;
        // A file the registry did not know when the scan began has no entry but the one this
        // scan writes (only scans add entries, and they hold the scan lock): its first piece
        // needs no lookup, unless the same path came twice.
        const bool firstOfNewFile = !piece.expected && newFiles_.insert(piece.entry.path).second;
        if (!firstOfNewFile && QuotaSessionFileRegistry::lastOffset(statements, e) != piece.expected) {
            abandonedPath_ = piece.entry.path;
            return;
        }
        bool created = false;
        const std::int64_t key = QuotaUsageEntryStore::fileKeyWithState(statements, e, piece.state, !piece.expected, created);
        QuotaUsageEntryStore::Tally forgotten;
        if (piece.forgetFirst && !created) forgotten = QuotaUsageEntryStore::forgetFile(statements, key);
        const auto added =
            QuotaUsageEntryStore::record(statements, key, records.usage_, records.messages_, e.providerID, records.sessions_,
                                         sinceEmpty_ ? &*sinceEmpty_ : nullptr);
        if (records.limits_) QuotaUsageEntryStore::noteRateLimits(statements, *records.limits_);
        QuotaSessionFileRegistry::upsert(statements, e);
        tally_.tokens += forgotten.countedTokens + added.countedTokens;
    }

    const QuotaSessionFileRegistry& registry_;
    QuotaScanSummary& tally_;
    std::string abandonedPath_;
    std::unordered_set<std::string> newFiles_;  // paths unknown to the registry, written by this scan
    // A scan into empty usage entries (the first) looks up only keys it wrote itself; only
    // scans write the entries, and they hold the scan lock.
    bool checkedEmpty_ = false;
    std::optional<QuotaUsageEntryStore::KeysSinceEmpty> sinceEmpty_;
};

// How the connections work for the length of a scan; the set-up values are restored after.
//  - The stores map up to 256 MiB of each database file into memory for fast reads. A scan
//    touches most pages of the files it fills, so the connections read through the page cache
//    instead: the scan's memory then stays the same whatever the size of the tree and stores.
//  - The registry keeps up to 64 MiB of pages, so that a batch's changes (random places in the
//    usage indexes) stay in memory until it commits instead of being spilled and written again.
//  - Statement journals (the undo of one statement inside a batch, which every insert that fires
//    a trigger needs) are kept in memory instead of in a temporary file.
class ImportTuning {
public:
    ImportTuning(const QuotaSessionFileRegistry& registry, const QuotaSessionCatalogStore& catalog)
        : registry_(registry), catalog_(catalog) {
        registry_.setMemoryMapLimit(0);
        catalog_.setMemoryMapLimit(0);
        registry_.withConnection([](sqlite::Connection& connection) {
            connection.exec("PRAGMA cache_size=-65536; PRAGMA temp_store=MEMORY", "set import cache");
        });
    }
    ~ImportTuning() {
        try {
            registry_.setMemoryMapLimit(SQLiteConnectionHolder::memoryMapBytes);
            catalog_.setMemoryMapLimit(SQLiteConnectionHolder::memoryMapBytes);
            registry_.withConnection([](sqlite::Connection& connection) {
                connection.exec("PRAGMA cache_size=-2000; PRAGMA temp_store=DEFAULT", "reset import cache");
            });
        } catch (const Error&) {
            // The connections work as they are too; only speed and memory are at stake.
        }
    }
    ImportTuning(const ImportTuning&) = delete;
    ImportTuning& operator=(const ImportTuning&) = delete;

private:
    const QuotaSessionFileRegistry& registry_;
    const QuotaSessionCatalogStore& catalog_;
};

// The checkpoint of a tool's scan: a digest of every file's path, size and time, which changes
// whenever any file does.
std::string scanSignature(const CodingToolLogs& tool, QuotaSessionContentCaptureMode capture,
                          const std::vector<LogFileCandidate>& files) {
    std::string text = std::to_string(tool.parserVersion()) + "|" + std::string(json::rawValue(capture));
    for (const auto& f : files) {
        text += "\n" + f.path.string() + "|" + std::to_string(f.size) + "|" + std::to_string(secondsSince1970(f.modifiedAt));
    }
    return sha256Hex(text);
}

// Writes the checkpoints of the tools whose files changed, in one save; an unchanged tree
// writes nothing.
void updateCheckpoints(const QuotaSessionImportStateStore& states, const std::vector<ToolFiles>& tools,
                       const std::string& sourceID, QuotaSessionContentCaptureMode capture, Date now) {
    auto catalog = states.load();
    bool changed = false;
    for (const auto& tool : tools) {
        const std::string providerID = tool.tool->provider().id;
        const std::string signature = scanSignature(*tool.tool, capture, tool.files);
        auto found = std::find_if(catalog.entries.begin(), catalog.entries.end(), [&](const auto& c) {
            return c.sourceID == sourceID && c.providerID == providerID;
        });
        if (found != catalog.entries.end() && found->scanSignature == signature) continue;
        if (found == catalog.entries.end()) found = catalog.entries.insert(catalog.entries.end(), QuotaSessionImportCheckpoint{});
        QuotaSessionImportCheckpoint& checkpoint = *found;
        checkpoint.sourceID = sourceID;
        checkpoint.providerID = providerID;
        checkpoint.scanSignature = signature;
        checkpoint.candidateFileFingerprints.clear();
        for (const auto& f : tool.files) checkpoint.candidateFileFingerprints.push_back({f.path.string(), f.size, f.modifiedAt});
        checkpoint.rangePresetID = "all";
        checkpoint.depthPresetID = std::string(json::rawValue(capture));
        checkpoint.parserVersion = tool.tool->parserVersion();
        checkpoint.updatedAt = now;
        changed = true;
    }
    if (!changed) return;
    catalog.updatedAt = now;
    states.save(catalog);
}

}  // namespace

QuotaLogScanner::QuotaLogScanner(QuotaSyncConfiguration configuration) : configuration_(std::move(configuration)) {}

QuotaScanSummary QuotaLogScanner::scan(const QuotaScanOptions& options) const {
    const auto directory = configuration_.resolvedAppGroupDirectory();
    if (!directory) throw QuotaSessionFileRegistryError::missingAppGroupContainer(configuration_.appGroupIdentifier);
    const ScanLock lock{*directory / lockFilename};
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
                FileReader{options, sourceID, configuration_.clock.now(), queue, read[r]}.readAll(files, progress);
            } catch (...) {
                readFailures[r] = std::current_exception();
            }
            if (--reading == 0) queue.finish();
        });
    }
    const auto joinReaders = [&] {
        for (auto& reader : readers) reader.join();
    };
    PieceWriter writer{registry, written};
    try {
        writer.writeAll(queue);
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
    if (summary.filesUnchanged != total || std::size_t(total) != known) {
        checkpoints = std::async(std::launch::async, [&] {
            updateCheckpoints(states, tools, sourceID, options.capture, configuration_.clock.now());
        });
    }
    if (writer.deferredIndexes()) QuotaUsageEntryStore{registry}.buildDeferredIndexes();
    QuotaUsageEntryStore{registry}.refreshUsageQuarters();
    const auto published = publishDirtySessions(QuotaUsageEntryStore{registry}, catalog, options.capture);
    if (checkpoints.valid()) checkpoints.get();
    summary.newSessions = published.newSessions;
    summary.updatedSessions = published.updatedSessions;
    if (options.progress) options.progress({total, total, summary.bytesRead, std::max(toRead, summary.bytesRead)});
    return summary;
}

}  // namespace gaugepoint
