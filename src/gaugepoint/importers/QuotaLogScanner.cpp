#include "gaugepoint/importers/QuotaLogScanner.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/importers/LogFileWalker.hpp"
#include "gaugepoint/importers/SessionPublisher.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;

// Lines are read in pieces of this size; a line longer than one piece is skipped. Memory stays
// within a few pieces whatever the files hold.
constexpr std::size_t kPieceBytes = std::size_t(32) << 20;
constexpr std::size_t kMaximumProblems = 1000;

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

// What one read of a file gave, waiting for its transaction.
class Collected final : public LogRecordSink {
public:
    explicit Collected(std::string path) : path_(std::move(path)) {}

    void usage(QuotaUsageEntry entry) override { usage_.push_back(std::move(entry)); }
    void message(QuotaImportedMessage message) override {
        if (firstSession_.empty()) firstSession_ = message.sessionID;
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

// One scan of one tool's files.
class ToolScan {
public:
    ToolScan(const CodingToolLogs& tool, const QuotaSessionFileRegistry& registry, const QuotaScanOptions& options,
             const std::string& sourceID, QuotaScanSummary& summary, std::vector<char>& buffer)
        : tool_(tool), registry_(registry), options_(options), sourceID_(sourceID), summary_(summary), buffer_(buffer),
          now_(registry.configuration().clock.now()) {}

    // The files found, and what the registry knows of them.
    void run(const std::vector<LogFileCandidate>& files, std::int64_t& done, std::int64_t total) {
        std::unordered_map<std::string, QuotaSessionFileRegistryEntry> known;
        for (auto& entry : registry_.list(tool_.provider().id, options_.capture, sourceID_)) {
            known.emplace(entry.path, std::move(entry));
        }
        for (const auto& file : files) {
            const auto found = known.find(file.path.string());
            const QuotaSessionFileRegistryEntry* entry = found == known.end() ? nullptr : &found->second;
            if (entry && isUnchanged(*entry, file)) {
                ++summary_.filesUnchanged;
            } else {
                read(file, entry);
            }
            if (++done % 16 == 0 && options_.progress) options_.progress(done, total, summary_.bytesRead);
        }
    }

private:
    bool isUnchanged(const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) const {
        return entry.parserVersion == tool_.parserVersion() && entry.fileIdentifier == file.identity &&
               entry.size == file.size && entry.modifiedAt == file.modifiedAt;
    }

    void problem(const std::string& path, std::optional<std::int64_t> offset, std::string reason) {
        if (summary_.problems.size() < kMaximumProblems) summary_.problems.push_back({path, offset, std::move(reason)});
    }

    void read(const LogFileCandidate& file, const QuotaSessionFileRegistryEntry* entry) {
        const std::string path = file.path.string();
        ReadableFile opened{file.path};
        struct stat info {};
        if (!opened.isOpen() || ::fstat(opened.fd(), &info) != 0) {
            ++summary_.filesSkipped;
            return problem(path, std::nullopt, errno == ENOENT ? "vanished before it could be read" : std::strerror(errno));
        }
        QuotaSessionFileRegistryEntry next;
        next.path = path;
        next.sourceID = sourceID_;
        next.providerID = tool_.provider().id;
        next.captureMode = options_.capture;
        next.parserVersion = tool_.parserVersion();
        next.fileIdentifier = identityOf(info);
        // A file read before by these rules, the same file and not cut short, is read on from
        // where the last read stopped; anything else is read again from the start, and what it
        // gave before is replaced.
        const bool goesOn = entry && file.layout == LogLayout::appendedLines && entry->parserVersion == next.parserVersion &&
                            entry->fileIdentifier == next.fileIdentifier && entry->lastOffset <= std::int64_t(info.st_size);
        const std::optional<std::int64_t> expected = entry ? std::optional(entry->lastOffset) : std::nullopt;
        ++summary_.filesRead;
        if (file.layout == LogLayout::wholeDocument) return readDocument(opened, next, expected);
        readLines(opened, next, expected, goesOn ? entry->lastOffset : 0, !goesOn && entry);
    }

    void readDocument(ReadableFile& opened, QuotaSessionFileRegistryEntry& next, std::optional<std::int64_t> expected) {
        std::string text;
        try {
            text = readInputFile(next.path, InputLimit::document("a chat document"));
        } catch (const Error& e) {
            ++summary_.filesSkipped;
            return problem(next.path, std::nullopt, e.what());
        }
        summary_.bytesRead += std::int64_t(text.size());
        text.resize(text.size() + kJsonPadding);
        Collected collected{next.path};
        const LogFileContext context{next.path, options_.capture, &parser_};
        tool_.parseDocument(std::string_view(text.data(), text.size() - kJsonPadding), context, collected);
        struct stat info {};
        ::fstat(opened.fd(), &info);
        next.lastOffset = std::int64_t(text.size() - kJsonPadding);
        next.size = std::int64_t(info.st_size);
        next.modifiedAt = modificationTime(info);
        commit(collected, next, expected, /*forgetFirst=*/true, std::string());
    }

    // Reads complete lines from `offset` in pieces, committing each piece with the position after
    // its last complete line. A last line without its newline is left for the next scan.
    void readLines(ReadableFile& opened, QuotaSessionFileRegistryEntry& next, std::optional<std::int64_t> expected,
                   std::int64_t offset, bool forgetFirst) {
        if (::lseek(opened.fd(), off_t(offset), SEEK_SET) < 0) {
            ++summary_.filesSkipped;
            return problem(next.path, std::nullopt, std::strerror(errno));
        }
        std::string state = forgetFirst || offset == 0 ? std::string() : parserStateOf(next);
        Collected collected{next.path};
        const LogFileContext context{next.path, options_.capture, &parser_};
        std::size_t used = 0;             // bytes in the buffer, starting at file position `offset`
        bool skippingLongLine = false;    // inside a line longer than a piece
        std::vector<LogLine> lines;
        for (;;) {
            const ssize_t n = ::read(opened.fd(), buffer_.data() + used, kPieceBytes - used);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                problem(next.path, offset, std::strerror(errno));
                ++summary_.filesSkipped;
                return;
            }
            const bool atEnd = n == 0;
            used += std::size_t(n);
            summary_.bytesRead += n;
            const char* data = buffer_.data();
            const auto lastNewline = std::string_view(data, used).rfind('\n');
            if (lastNewline == std::string_view::npos) {
                if (atEnd) break;
                if (used < kPieceBytes) continue;
                // A piece without a newline: a line longer than any real one. It is skipped up to
                // its end, whenever that comes.
                if (!skippingLongLine) collected.badLine(offset, "a line longer than 32 MiB");
                skippingLongLine = true;
                offset += std::int64_t(used);
                used = 0;
                continue;
            }
            std::size_t start = 0;
            if (skippingLongLine) {
                start = std::string_view(data, used).find('\n') + 1;
                skippingLongLine = false;
            }
            lines.clear();
            for (std::size_t pos = start; pos <= lastNewline;) {
                const std::size_t end = std::string_view(data, used).find('\n', pos);
                if (end > pos && std::string_view(data + pos, end - pos).find_first_not_of(" \t\r") != std::string_view::npos) {
                    lines.push_back({std::string_view(data + pos, end - pos), offset + std::int64_t(pos)});
                }
                pos = end + 1;
            }
            tool_.parseLines(lines, context, state, collected);
            const std::int64_t consumed = std::int64_t(lastNewline + 1);
            next.lastOffset = offset + consumed;
            struct stat info {};
            const bool last = atEnd || used < kPieceBytes;
            if (last && ::fstat(opened.fd(), &info) == 0) {
                next.size = std::int64_t(info.st_size);
                next.modifiedAt = modificationTime(info);
            }
            if (!commit(collected, next, expected, forgetFirst, state)) return;
            expected = next.lastOffset;
            forgetFirst = false;
            collected.clear();
            std::memmove(buffer_.data(), data + consumed, used - std::size_t(consumed));
            used -= std::size_t(consumed);
            offset = next.lastOffset;
            if (atEnd) break;
        }
        if (!collected.bad_.empty() || (next.size.value_or(-1) < 0)) {
            // A file that ended without a complete line in its last piece: its position and look
            // are still recorded, so an unchanged file is not opened again.
            struct stat info {};
            if (::fstat(opened.fd(), &info) == 0) {
                next.lastOffset = offset;
                next.size = std::int64_t(info.st_size);
                next.modifiedAt = modificationTime(info);
                commit(collected, next, expected, forgetFirst, state);
            }
        }
    }

    std::string parserStateOf(const QuotaSessionFileRegistryEntry& entry) const {
        std::string state;
        registry_.withConnection([&](sqlite::Connection& connection) {
            state = QuotaUsageEntryStore::parserState(connection, QuotaUsageEntryStore::fileKey(connection, entry));
        });
        return state;
    }

    // Writes one read: its rows, the parser's state and the file's new position, in one
    // transaction. Another scan that moved the position in between wins: nothing is written and
    // false is returned.
    bool commit(Collected& collected, QuotaSessionFileRegistryEntry& next, std::optional<std::int64_t> expected,
                bool forgetFirst, const std::string& state) {
        next.updatedAt = now_;
        if (next.sessionID.value_or("").empty() && !collected.firstSession_.empty()) next.sessionID = collected.firstSession_;
        const bool written = registry_.inTransaction("import " + std::string(tool_.provider().id), [&](sqlite::Connection& c) {
            const auto current = QuotaSessionFileRegistry::load(c, next.path, next.sourceID, next.providerID, next.captureMode);
            if ((current ? std::optional(current->lastOffset) : std::nullopt) != expected) return false;
            const std::int64_t key = QuotaUsageEntryStore::fileKey(c, next);
            QuotaUsageEntryStore::Tally tally;
            if (forgetFirst) tally = QuotaUsageEntryStore::forgetFile(c, key);
            const auto added = QuotaUsageEntryStore::record(c, key, collected.usage_, collected.messages_,
                                                            tool_.provider().id, collected.sessions_);
            if (collected.limits_) QuotaUsageEntryStore::noteRateLimits(c, *collected.limits_);
            QuotaUsageEntryStore::setParserState(c, key, state);
            QuotaSessionFileRegistry::upsert(c, next);
            summary_.tokens += tally.countedTokens + added.countedTokens;
            return true;
        });
        summary_.linesSkipped += std::int64_t(collected.bad_.size());
        for (auto& bad : collected.bad_) problem(bad.path, bad.offset, std::move(bad.reason));
        collected.bad_.clear();
        return written;
    }

    const CodingToolLogs& tool_;
    const QuotaSessionFileRegistry& registry_;
    const QuotaScanOptions& options_;
    const std::string& sourceID_;
    QuotaScanSummary& summary_;
    std::vector<char>& buffer_;
    Date now_;
    JsonLineParser parser_;
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

void updateCheckpoint(const QuotaSessionImportStateStore& states, const CodingToolLogs& tool, const std::string& sourceID,
                      QuotaSessionContentCaptureMode capture, const std::vector<LogFileCandidate>& files, Date now) {
    const std::string signature = scanSignature(tool, capture, files);
    const auto stored = states.checkpoint(sourceID, tool.provider().id);
    if (stored && stored->scanSignature == signature) return;  // an unchanged tree writes nothing
    QuotaSessionImportCheckpoint checkpoint;
    checkpoint.sourceID = sourceID;
    checkpoint.providerID = tool.provider().id;
    checkpoint.scanSignature = signature;
    for (const auto& f : files) checkpoint.candidateFileFingerprints.push_back({f.path.string(), f.size, f.modifiedAt});
    checkpoint.rangePresetID = "all";
    checkpoint.depthPresetID = std::string(json::rawValue(capture));
    checkpoint.parserVersion = tool.parserVersion();
    checkpoint.updatedAt = now;
    states.upsert(checkpoint);
}

}  // namespace

QuotaLogScanner::QuotaLogScanner(QuotaSyncConfiguration configuration) : configuration_(std::move(configuration)) {}

QuotaScanSummary QuotaLogScanner::scan(const QuotaScanOptions& options) const {
    const auto directory = configuration_.resolvedAppGroupDirectory();
    if (!directory) throw QuotaSessionFileRegistryError::missingAppGroupContainer(configuration_.appGroupIdentifier);
    const ScanLock lock{*directory / lockFilename};
    const std::string sourceID = configuration_.localSourceID();
    const QuotaSessionFileRegistry registry{configuration_};
    const QuotaSessionImportStateStore states{configuration_};
    QuotaScanSummary summary;

    std::vector<std::vector<LogFileCandidate>> filesPerTool;
    std::int64_t total = 0;
    for (const auto& tool : codingTools()) {
        const auto given = options.homes.find(tool->provider().id);
        const auto homes = given != options.homes.end() ? given->second : tool->defaultHomes();
        std::vector<WalkProblem> problems;
        filesPerTool.push_back(findLogFiles(*tool, homes, problems));
        total += std::int64_t(filesPerTool.back().size());
        for (const auto& p : problems) {
            if (summary.problems.size() < kMaximumProblems) summary.problems.push_back({p.path.string(), std::nullopt, p.reason});
        }
    }
    std::vector<char> buffer(kPieceBytes + kJsonPadding);
    std::int64_t done = 0;
    for (std::size_t i = 0; i < codingTools().size(); ++i) {
        const auto& tool = *codingTools()[i];
        ToolScan{tool, registry, options, sourceID, summary, buffer}.run(filesPerTool[i], done, total);
        updateCheckpoint(states, tool, sourceID, options.capture, filesPerTool[i], configuration_.clock.now());
    }
    const auto published = publishDirtySessions(QuotaUsageEntryStore{registry}, QuotaSessionCatalogStore{configuration_});
    summary.newSessions = published.newSessions;
    summary.updatedSessions = published.updatedSessions;
    if (options.progress) options.progress(done, total, summary.bytesRead);
    return summary;
}

}  // namespace gaugepoint
