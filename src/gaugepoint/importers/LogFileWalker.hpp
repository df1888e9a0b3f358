#pragma once

// Finds a tool's log files below its homes, with what each looks like now.

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

struct LogFileCandidate {
    std::filesystem::path path;
    LogLayout layout = LogLayout::appendedLines;
    std::int64_t size = 0;
    Date modifiedAt;
    std::string identity;  // "<device>:<inode>", as the file registry writes it
};

// A file's modification time, and its "<device>:<inode>" identity as the file registry writes it.
Date fileModificationTime(const struct ::stat& info);
std::string fileIdentity(const struct ::stat& info);

// Something the walk could not look into, and why.
struct WalkProblem {
    std::filesystem::path path;
    std::string reason;
};

// Every log file below the log folders of `homes` (a missing home or folder is simply not
// there), in path order. Symbolic links are followed, each directory is entered once (so a link
// back up cannot loop) and at most 64 levels deep; a directory that cannot be read is reported.
std::vector<LogFileCandidate> findLogFiles(const CodingToolLogs& tool, const std::vector<std::filesystem::path>& homes,
                                           std::vector<WalkProblem>& problems);

}  // namespace gaugepoint
