#include "gaugepoint/importers/LogFileWalker.hpp"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

namespace gaugepoint {
namespace {

namespace fs = std::filesystem;
constexpr int kMaximumDepth = 64;

struct Walk {
    const CodingToolLogs& tool;
    std::size_t relativeFrom;  // where the part below the log folder starts in an entry's path
    std::vector<LogFileCandidate>& found;
    std::vector<WalkProblem>& problems;
    std::set<std::pair<dev_t, ino_t>> visited;

    Walk(const CodingToolLogs& tool, const std::string& folder, std::vector<LogFileCandidate>& found,
         std::vector<WalkProblem>& problems, std::set<std::pair<dev_t, ino_t>> visited)
        : tool(tool), relativeFrom(folder.size() + (folder.ends_with('/') ? 0 : 1)), found(found), problems(problems),
          visited(std::move(visited)) {}

    void directory(const std::string& path, int depth) {
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return;
        enter(path, info, depth);
    }

    // Entries are examined relative to their open directory, so the system does not resolve
    // each file's whole path again; paths stay plain strings, which the walk of a large tree
    // builds and takes apart for every entry.
    void enter(const std::string& path, const struct stat& info, int depth) {
        if (!visited.emplace(info.st_dev, info.st_ino).second) return;  // reached again through a link
        if (depth > kMaximumDepth) return problems.push_back({path, "directories nested too deep"});
        DIR* dir = ::opendir(path.c_str());
        if (!dir) return problems.push_back({path, std::strerror(errno)});
        std::vector<std::pair<std::string, struct stat>> entries;
        while (const dirent* entry = ::readdir(dir)) {
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..") continue;
            struct stat child {};
            if (::fstatat(::dirfd(dir), entry->d_name, &child, 0) != 0) continue;  // vanished, or a dangling link
            entries.emplace_back(name, child);
        }
        ::closedir(dir);
        std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        std::string childPath = path;
        if (!childPath.ends_with('/')) childPath += '/';
        const std::size_t nameFrom = childPath.size();
        for (const auto& [name, child] : entries) {
            childPath.replace(nameFrom, std::string::npos, name);
            const LogPath relative{std::string_view(childPath).substr(std::min(relativeFrom, childPath.size()))};
            if (S_ISDIR(child.st_mode)) {
                if (tool.descendsInto(relative)) enter(childPath, child, depth + 1);
            } else if (S_ISREG(child.st_mode)) {
                file(childPath, relative, child);
            }
        }
    }

    void file(const std::string& path, LogPath relative, const struct stat& info) {
        const auto layout = tool.layoutOf(relative);
        if (!layout) return;
        std::int64_t size = std::int64_t(info.st_size);
        Date modified = fileModificationTime(info);
        // A database in WAL mode takes its writes into "-wal" until a checkpoint: the pair changes
        // together. Its size counts toward the database's, so a changed log is a changed file.
        struct stat wal {};
        if (*layout == LogLayout::database && ::stat((path + "-wal").c_str(), &wal) == 0) {
            size += std::int64_t(wal.st_size);
            modified = std::max(modified, fileModificationTime(wal));
        }
        found.push_back({path, *layout, size, modified, fileIdentity(info)});
    }
};

}  // namespace

Date fileModificationTime(const struct stat& info) {
#if defined(__APPLE__)
    const auto& time = info.st_mtimespec;
#else
    const auto& time = info.st_mtim;
#endif
    return dateFromSeconds(double(time.tv_sec) + double(time.tv_nsec) / 1e9);
}

std::string fileIdentity(const struct stat& info) {
    return std::to_string(std::uint64_t(info.st_dev)) + ":" + std::to_string(std::uint64_t(info.st_ino));
}

std::vector<LogFileCandidate> findLogFiles(const CodingToolLogs& tool, const std::vector<fs::path>& homes,
                                           std::vector<WalkProblem>& problems) {
    std::vector<LogFileCandidate> found;
    std::set<std::pair<dev_t, ino_t>> visited;  // shared by all homes: one folder reached twice is read once
    for (const auto& home : homes) {
        for (const auto& folder : tool.logFolders()) {
            const std::string root = (folder == "." ? home : home / folder).string();
            Walk walk{tool, root, found, problems, std::move(visited)};
            walk.directory(root, 0);
            visited = std::move(walk.visited);
        }
    }
    return found;
}

}  // namespace gaugepoint
