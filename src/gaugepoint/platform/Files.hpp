#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace gaugepoint {

// Replaces the file at `path` with `bytes`: written to a temporary file in the same directory,
// flushed, then renamed over the target, so readers (and a crash) see the old file or the new
// one, never a part. Throws gaugepoint::Error naming the file; the temporary is removed on failure.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

// Reads a whole file. Throws gaugepoint::Error naming the file and the system's reason.
std::string readWholeFile(const std::filesystem::path& path);

// A whole file, and whether it looked as if another process was rewriting it during the read:
// it was empty, or its size at the end of the read differs from what was read.
struct FileContents {
    std::string bytes;
    bool inFlux = false;
};

// Reads a whole file as above, noticing a concurrent rewrite. Throws like readWholeFile.
FileContents readFileNoticingRewrites(const std::filesystem::path& path);

}  // namespace gaugepoint
