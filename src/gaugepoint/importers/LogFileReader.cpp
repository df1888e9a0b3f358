#include "gaugepoint/importers/LogFileReader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
        if (file.layout == LogLayout::database) return readDatabase(file, std::move(piece));
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
        piece.entry.modifiedAt = modificationTime(info);
        piece.forgetFirst = true;  // a document is read whole: what it gave before is replaced
        return queue_.push(std::move(piece));
    }

    // A tool's database, read whole: its figures are as the walk saw them before the read, so a
    // write during the read is read again at the next scan.
    bool readDatabase(const LogFileCandidate& file, Piece piece) {
        piece.records = std::make_unique<Collected>(piece.entry.path, options_.capture);
        const LogFileContext context{piece.entry.path, options_.capture, &parser_};
        try {
            readToolDatabase(*piece.tool, file.path, context, *piece.records);
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
        piece.forgetFirst = true;  // rows updated in place: what the database gave before is replaced
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

}  // namespace

bool isUnchanged(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) {
    return entry.parserVersion == tool.parserVersion() && entry.fileIdentifier == file.identity &&
           entry.size == file.size && entry.modifiedAt == file.modifiedAt;
}

bool goesOn(const CodingToolLogs& tool, const QuotaSessionFileRegistryEntry& entry, const LogFileCandidate& file) {
    return file.layout == LogLayout::appendedLines && entry.lastOffset > 0 && entry.parserVersion == tool.parserVersion() &&
           entry.fileIdentifier == file.identity && entry.lastOffset <= file.size;
}

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

void ReadProgress::fileDone(std::int64_t bytesRead) {
    if (!options_.progress) return;
    std::lock_guard lock{mutex_};
    progress_.bytesRead += bytesRead;
    if (++progress_.filesDone % 16 == 0) options_.progress(progress_);
}

void readChangedFiles(const QuotaScanOptions& options, const std::string& sourceID, Date now, FileList& files,
                      ReadProgress& progress, PieceQueue& queue, QuotaScanSummary& tally) {
    FileReader{options, sourceID, now, queue, tally}.readAll(files, progress);
}

}  // namespace gaugepoint::scanning
