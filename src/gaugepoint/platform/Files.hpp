#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/InputFile.hpp"

namespace gaugepoint {

// Replaces the file at `path` with `bytes`: written to a temporary file in the same directory,
// flushed, then renamed over the target, so readers (and a crash) see the old file or the new
// one, never a part. Throws gaugepoint::Error naming the file; the temporary is removed on failure.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

// A file being replaced as in writeFileAtomically(), written in pieces: nothing appears at
// the path until commit(); destroying an uncommitted writer removes its temporary file.
class AtomicFileWriter {
public:
    // Creates the temporary file beside `path`. Throws gaugepoint::Error naming the file.
    explicit AtomicFileWriter(const std::filesystem::path& path);
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    // Appends bytes. Throws gaugepoint::Error naming the file.
    void write(std::string_view bytes);
    // Flushes and renames the temporary over the path. Throws gaugepoint::Error naming the file.
    void commit();

private:
    std::filesystem::path path_;
    std::string temporary_;
    int fd_ = -1;
    bool committed_ = false;
};

// A whole file, and whether it looked as if another process was rewriting it during the read:
// it was empty, or its size at the end of the read differs from what was read.
struct FileContents {
    std::string bytes;
    bool inFlux = false;
};

// Reads a whole file within `limit` (see InputFile.hpp), noticing a concurrent rewrite.
// Throws gaugepoint::Error naming the file and the system's reason, InputTooLargeError past
// the limit.
FileContents readFileNoticingRewrites(const std::filesystem::path& path, const InputLimit& limit);

// Before a writer replaces `file`, which it could not read (damaged, or not a document of
// ours): moves it to "<file>.corrupt-<UTC time, yyyyMMdd'T'HHmmss'Z'>" beside it, so nothing that
// was in it is lost, and keeps a notice naming both for the command to print. Returns the copy's
// path. Throws gaugepoint::Error naming the file when it cannot be moved (then nothing is written).
std::filesystem::path setAsideUnreadableFile(const std::filesystem::path& file);

// The notices kept by setAsideUnreadableFile() since the last call, oldest first. Thread-safe.
std::vector<std::string> takeSetAsideNotices();

}  // namespace gaugepoint
