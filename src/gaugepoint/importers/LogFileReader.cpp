#include "gaugepoint/importers/LogFileReader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/importers/ToolDatabase.hpp"
#include "gaugepoint/platform/InputFile.hpp"

namespace gaugepoint::scanning {
namespace {

// Lines are read in pieces of this size; a line longer than one piece is skipped. Memory stays
// within a few pieces whatever the files hold.
constexpr std::size_t kPieceBytes = std::size_t(32) << 20;

class ReadableFile {
public:
    explicit ReadableFile(const std::filesystem::path& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
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

// What a file held up to a position, in 64 bits: its first and its last few KB up to there. A
// log rewritten in place (same inode, longer than before) almost always differs in one of
// them, and is then read again instead of on from the old position; an edit only in the middle
// of a large file goes unnoticed. Stored with each position, so it must stay the same function
// from version to version (not std::hash); it is reckoned once per piece of every file read, so
// eight bytes at a time (in this machine's byte order: the stores never leave it).
class PrefixDigest {
public:
    static constexpr std::size_t kWindow = 4096;  // bytes at each end

    // The bytes read next after those added so far.
    void add(std::string_view bytes) {
        if (head_.size() < kWindow) head_.append(bytes.substr(0, kWindow - head_.size()));
        if (bytes.size() >= kWindow) {
            tail_.assign(bytes.substr(bytes.size() - kWindow));
        } else {
            tail_.append(bytes);
            if (tail_.size() > 2 * kWindow) tail_.erase(0, tail_.size() - kWindow);
        }
    }
    // Starts from what a file holds before `offset`; false when it could not be read whole.
    bool load(int fd, std::int64_t offset) {
        head_.resize(std::size_t(std::min<std::int64_t>(offset, kWindow)));
        const std::int64_t tailStart = std::max<std::int64_t>(0, offset - std::int64_t(kWindow));
        tail_.resize(std::size_t(offset - tailStart));
        return readAt(fd, head_, 0) && readAt(fd, tail_, tailStart);
    }
    std::int64_t value() const {
        std::uint64_t hash = 0xcbf29ce484222325ULL;
        const auto mix = [&](std::string_view bytes) {
            std::size_t at = 0;
            for (; at + 8 <= bytes.size(); at += 8) {
                std::uint64_t word;
                std::memcpy(&word, bytes.data() + at, 8);
                hash = (hash ^ word) * 0x9e3779b97f4a7c15ULL;
                hash ^= hash >> 29;
            }
            for (; at < bytes.size(); ++at) hash = (hash ^ static_cast<unsigned char>(bytes[at])) * 0x100000001b3ULL;
            hash = (hash ^ bytes.size()) * 0x9e3779b97f4a7c15ULL;
        };
        mix(head_);
        mix(std::string_view(tail_).substr(tail_.size() - std::min(tail_.size(), kWindow)));
        return std::int64_t(hash);
    }
    // The last byte added, if any.
    std::optional<char> last() const { return tail_.empty() ? std::nullopt : std::optional(tail_.back()); }

private:
    static bool readAt(int fd, std::string& into, std::int64_t at) {
        std::size_t done = 0;
        while (done < into.size()) {
            const ssize_t n = ::pread(fd, into.data() + done, into.size() - done, off_t(at + std::int64_t(done)));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += std::size_t(n);
        }
        return true;
    }

    std::string head_, tail_;  // the first bytes; the last (between one and two windows of them)
};

// Whether `line` (with kJsonPadding readable bytes after it) is one whole JSON object.
bool isWholeObject(simdjson::dom::parser& parser, std::string_view line) {
    const std::size_t end = line.find_last_not_of(" \t\r");
    if (end == std::string_view::npos || line.front() != '{') return false;
    const auto parsed = parser.parse(line.data(), end + 1, false);
    return !parsed.error() && parsed.value_unsafe().is_object();
}

// Reads and parses the files that changed into pieces. Readers run on threads of their own, a
// file each at a time, while the scan's thread writes the pieces: parsing and SQLite then share
// the cores, and a reader waiting for a file does not hold the others up. A file's pieces are
// queued in order by the one reader that took it.
class FileReader {
public:
    FileReader(const QuotaScanOptions& options, const std::string& sourceID, Date now, double quietLastLine,
               PieceQueue& queue, QuotaScanSummary& tally)
        : options_(options), sourceID_(sourceID), queue_(queue), tally_(tally), now_(now), quietLastLine_(quietLastLine) {}

    void readAll(FileList& files, ReadProgress& progress) {
        // What waits here would wait for the walks too.
        const auto beforeWaiting = [&] { send(); };
        while (const auto next = files.take(beforeWaiting)) {
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
        send();
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
        // A file new to the registry is read from its start whatever it holds, and takes the
        // identity the walk saw (should it have been replaced since, the next walk sees another
        // and reads it again): only a known file is looked at before its read.
        struct stat info {};
        if (!opened.isOpen() || (entry && ::fstat(opened.fd(), &info) != 0)) {
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
        piece.entry.fileIdentifier = entry ? fileIdentity(info) : file.identity;
        piece.entry.updatedAt = now_;
        piece.expected = entry ? std::optional(entry->lastOffset) : std::nullopt;
        // A file read before by these rules, the same file and not cut short, is read on from
        // where the last read stopped; anything else is read again from the start, and what it
        // gave before is replaced.
        bool readsOn = entry && file.layout == LogLayout::appendedLines && entry->parserVersion == tool.parserVersion() &&
                       entry->fileIdentifier == piece.entry.fileIdentifier &&
                       entry->lastOffset <= std::int64_t(info.st_size);
        ++tally_.filesRead;
        if (file.layout == LogLayout::wholeDocument) return readDocument(opened, std::move(piece));
        if (file.layout == LogLayout::database) {
            // A read from the marks may touch no session: the file keeps the one it named.
            const auto marks = files.states.find(path);
            if (marks != files.states.end()) {
                piece.state = marks->second.state;
                piece.entry.sessionID = entry->sessionID;
            }
            return readDatabase(file, std::move(piece));
        }
        PrefixDigest digest;
        if (readsOn && entry->lastOffset > 0) {
            const auto resume = files.states.find(path);
            readsOn = resume != files.states.end() && stillHolds(opened.fd(), entry->lastOffset, resume->second, digest);
            if (readsOn) piece.state = resume->second.state;
        }
        if (!readsOn) digest = {};
        piece.forgetFirst = entry && !readsOn;
        return readLines(opened, std::move(piece), readsOn ? entry->lastOffset : 0, std::move(digest));
    }

    // Whether the file still holds what was read of it up to `offset` (then `digest` holds its
    // bytes so far): the same digest (files read before digests were kept are trusted), and a
    // last line counted without its newline that has not grown since. Anything else is a
    // rewrite, read again from the start.
    static bool stillHolds(int fd, std::int64_t offset, const QuotaUsageEntryStore::ReadOn& resume, PrefixDigest& digest) {
        if (!digest.load(fd, offset)) return false;
        if (resume.prefixDigest && *resume.prefixDigest != digest.value()) return false;
        if (digest.last() == '\n') return true;
        char next = '\n';
        return ::pread(fd, &next, 1, off_t(offset)) <= 0 || next == '\n';
    }

    bool readDocument(ReadableFile& opened, Piece piece) {
        std::string text;
        try {
            text = InputFile(opened.fd(), piece.entry.path, InputLimit::document("a chat document")).readAll();
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
        if (!piece.tool->parseDocument(std::string_view(text.data(), size), context, *piece.records)) {
            // Caught mid-write: what the document gave before stands until it reads whole.
            --tally_.filesRead;
            skipped(piece.entry.path, "not a complete document (being written?)");
            return true;
        }
        struct stat info {};
        ::fstat(opened.fd(), &info);
        piece.entry.lastOffset = std::int64_t(size);
        piece.bytes = std::int64_t(size);
        piece.entry.size = std::int64_t(info.st_size);
        piece.entry.modifiedAt = fileModificationTime(info);
        piece.forgetFirst = true;  // a document is read whole: what it gave before is replaced
        return send(std::move(piece));
    }

    // A tool's database, read from the marks its last read left (`piece.state`, "" when it is
    // read whole): its figures are as the walk saw them before the read, so a write during the
    // read is read again at the next scan.
    bool readDatabase(const LogFileCandidate& file, Piece piece) {
        piece.records = std::make_unique<Collected>(piece.entry.path, options_.capture);
        const LogFileContext context{piece.entry.path, options_.capture, &parser_};
        DatabaseRead read;
        try {
            read = readToolDatabase(*piece.tool, file.path, context, piece.state, *piece.records);
        } catch (const Error& e) {
            --tally_.filesRead;
            skipped(piece.entry.path, e.what());
            return true;
        }
        tally_.bytesRead += file.size;
        piece.entry.lastOffset = file.size;
        piece.bytes = file.size;
        piece.entry.size = file.size;
        piece.entry.modifiedAt = file.modifiedAt;
        piece.entry.fileIdentifier = file.identity;
        // Rows updated in place: what the rows read gave before is replaced.
        piece.forgetFirst = read.whole;
        piece.rowGroups = std::move(read.rowGroups);
        return send(std::move(piece));
    }

    // Reads complete lines from `offset` in pieces, each ending after its last complete line. A
    // last line without its newline is left for the next scan. Every piece but the last leaves
    // the entry's size unknown, so a scan stopped in between reads on from its position.
    bool readLines(ReadableFile& opened, Piece piece, std::int64_t offset, PrefixDigest digest) {
        if (offset != 0 && ::lseek(opened.fd(), off_t(offset), SEEK_SET) < 0) {  // a file opens at 0
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
        bool reachedEnd = false;
        for (;;) {
            const ssize_t n = ::read(opened.fd(), buffer_.get() + used, kPieceBytes - used);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                records->badLine(offset, std::string("reading stopped: ") + std::strerror(errno));
                reachedEnd = false;
                break;
            }
            reachedEnd = n == 0 || used + std::size_t(n) < kPieceBytes;
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
                digest.add(data);
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
            digest.add(data.substr(0, lastNewline + 1));
            offset += std::int64_t(lastNewline + 1);
            std::memmove(buffer_.get(), buffer_.get() + lastNewline + 1, used - (lastNewline + 1));
            used -= lastNewline + 1;
            if (atEnd) break;
            Piece next = followOn(piece, offset);
            piece.bytes = offset - pieceStart;
            pieceStart = offset;
            piece.entry.lastOffset = offset;
            piece.entry.size.reset();
            piece.prefixDigest = digest.value();
            piece.records = std::exchange(records, std::make_unique<Collected>(piece.entry.path, options_.capture));
            if (!send(std::exchange(piece, std::move(next)))) return false;
        }
        struct stat info {};
        ::fstat(opened.fd(), &info);
        // What is left is a last line without its newline. A tool may still be writing it: it
        // counts once it is a whole record and the file has been quiet for a while; should it
        // grow later, the file is read again (see stillHolds).
        if (reachedEnd && used > 0 && !skippingLongLine && isQuiet(info)) {
            const std::string_view last(buffer_.get(), used);
            if (!lastLineParser_) lastLineParser_ = std::make_unique<simdjson::dom::parser>();
            if (isWholeObject(*lastLineParser_, last)) {
                const LogLine line{last, offset};
                piece.tool->parseLines({&line, 1}, context, piece.state, *records);
                digest.add(last);
                offset += std::int64_t(used);
            }
        }
        piece.entry.lastOffset = offset;
        piece.prefixDigest = digest.value();
        piece.bytes = offset - pieceStart;
        piece.entry.size = std::int64_t(info.st_size);
        piece.entry.modifiedAt = fileModificationTime(info);
        piece.records = std::move(records);
        return send(std::move(piece));
    }

    // Pieces go to the writer in groups of up to kGroupPieces pieces or kGroupBytes of the files;
    // send() without a piece sends what is held. False when the writer has given up.
    bool send(std::optional<Piece> piece = std::nullopt) {
        if (piece) {
            outgoingBytes_ += piece->bytes;
            outgoing_.push_back(std::move(*piece));
            if (outgoing_.size() < kGroupPieces && outgoingBytes_ < kGroupBytes) return true;
        }
        outgoingBytes_ = 0;
        return outgoing_.empty() || queue_.push(outgoing_);
    }

    bool isQuiet(const struct stat& info) const {
        const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
        return now - secondsSince1970(fileModificationTime(info)) >= quietLastLine_;
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
    double quietLastLine_;
    std::unique_ptr<char[]> buffer_;
    JsonLineParser parser_;
    std::unique_ptr<simdjson::dom::parser> lastLineParser_;  // made on the first last line to check
    static constexpr std::size_t kGroupPieces = 32;
    static constexpr std::int64_t kGroupBytes = std::int64_t(4) << 20;
    std::vector<Piece> outgoing_;
    std::int64_t outgoingBytes_ = 0;
};

}  // namespace

bool isUnchanged(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) {
    return entry.parserVersion == tool.parserVersion() && entry.fileIdentifier == file.identity &&
           entry.size == file.size && entry.modifiedAt == file.modifiedAt;
}

bool goesOn(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) {
    return file.layout == LogLayout::appendedLines && entry.lastOffset > 0 && entry.parserVersion == tool.parserVersion() &&
           entry.fileIdentifier == file.identity && entry.lastOffset <= file.size;
}

bool keepsParserState(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) {
    if (file.layout == LogLayout::database) {
        return entry.parserVersion == tool.parserVersion() && entry.fileIdentifier == file.identity;
    }
    return goesOn(tool, entry, file);
}

std::int64_t bytesToRead(const ToolFiles& tool) {
    std::int64_t bytes = 0;
    for (const auto& file : tool.files) {
        const auto found = tool.known.find(file.path.string());
        if (found == tool.known.end()) {
            bytes += file.size;
        } else if (!isUnchanged(*tool.tool, found->second, file)) {
            bytes += file.size - (goesOn(*tool.tool, found->second, file) ? found->second.lastOffset : 0);
        }
    }
    return bytes;
}

void FileList::add(const ToolFiles& tool) {
    std::lock_guard lock{mutex_};
    for (const auto& file : tool.files) files_.emplace_back(&tool, &file);
    added_.notify_all();
}

void FileList::finish() {
    std::lock_guard lock{mutex_};
    finished_ = true;
    added_.notify_all();
}

std::optional<std::pair<const ToolFiles*, const LogFileCandidate*>> FileList::take(
    const std::function<void()>& beforeWaiting) {
    std::unique_lock lock{mutex_};
    if (next_ >= files_.size() && !finished_) {
        lock.unlock();
        beforeWaiting();
        lock.lock();
    }
    added_.wait(lock, [&] { return next_ < files_.size() || finished_; });
    if (next_ >= files_.size()) return std::nullopt;
    return files_[next_++];
}

void ReadProgress::add(std::int64_t files, std::int64_t bytes) {
    std::lock_guard lock{mutex_};
    progress_.filesTotal += files;
    progress_.bytesToRead += bytes;
}

void ReadProgress::fileDone(std::int64_t bytesRead) {
    if (!options_.progress) return;
    std::lock_guard lock{mutex_};
    progress_.bytesRead += bytesRead;
    if (++progress_.filesDone % 16 == 0) options_.progress(progress_);
}

void readChangedFiles(const QuotaScanOptions& options, const std::string& sourceID, Date now, double quietLastLine,
                      FileList& files, ReadProgress& progress, PieceQueue& queue, QuotaScanSummary& tally) {
    FileReader{options, sourceID, now, quietLastLine, queue, tally}.readAll(files, progress);
}

}  // namespace gaugepoint::scanning
