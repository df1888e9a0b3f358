#pragma once

// Notice of changes below a set of folders, for faces that stay open: a file created, written,
// moved in or removed anywhere beneath them, folders created later included. On Linux this is
// inotify with one watch per folder; where that is unavailable (another system, or the watch
// limit reached) the watcher reports a change every `fallbackPeriod` instead, so callers poll.

#include <chrono>
#include <filesystem>
#include <unordered_map>
#include <vector>

namespace gaugepoint {

class DirectoryWatcher {
public:
    // Watches every existing folder beneath each root; a missing root is watched once
    // adoptNewRoots() finds it.
    explicit DirectoryWatcher(std::vector<std::filesystem::path> roots,
                              std::chrono::milliseconds fallbackPeriod = std::chrono::seconds(5));
    ~DirectoryWatcher();
    DirectoryWatcher(const DirectoryWatcher&) = delete;
    DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

    // The descriptor to wait on for readability; -1 when the watcher polls on a timer.
    int descriptor() const { return fd_; }
    // Whether changes are reported as they happen rather than on the fallback timer.
    bool live() const { return fd_ >= 0; }
    // How long a caller may wait before calling changed() again: forever (max) when live.
    std::chrono::milliseconds pollPeriod() const;
    // Folders watched now.
    std::size_t watchedFolders() const { return folders_.size(); }

    // Reads what happened without blocking, adds watches for new folders, and says whether
    // anything changed since the last call. In fallback mode: whether the period has passed.
    bool changed();
    // Watches the roots that were missing and exist now (a tool installed while the view is
    // open); true when there was one. Cheap: a stat per missing root.
    bool adoptNewRoots();

private:
    void watchTree(const std::filesystem::path& root);
    void watchFolder(const std::filesystem::path& folder);

    std::vector<std::filesystem::path> missing_;
    std::chrono::milliseconds fallbackPeriod_;
    std::chrono::steady_clock::time_point lastFallback_;
    int fd_ = -1;
    std::unordered_map<int, std::filesystem::path> folders_;  // watch descriptor -> folder
};

}  // namespace gaugepoint
