#include "gaugepoint/platform/DirectoryWatcher.hpp"

#include <cerrno>
#include <cstring>
#include <system_error>

#if defined(__linux__)
#include <sys/inotify.h>
#include <unistd.h>
#endif

namespace gaugepoint {

namespace fs = std::filesystem;

DirectoryWatcher::DirectoryWatcher(std::vector<fs::path> roots, std::chrono::milliseconds fallbackPeriod)
    : fallbackPeriod_(fallbackPeriod), lastFallback_(std::chrono::steady_clock::now()) {
#if defined(__linux__)
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
#endif
    if (fd_ < 0) return;
    for (auto& root : roots) {
        std::error_code error;
        if (fs::is_directory(root, error)) watchTree(root);
        else missing_.push_back(std::move(root));
    }
}

bool DirectoryWatcher::adoptNewRoots() {
    if (fd_ < 0) return false;
    const auto before = missing_.size();
    std::erase_if(missing_, [this](const fs::path& root) {
        std::error_code error;
        if (!fs::is_directory(root, error)) return false;
        watchTree(root);
        return true;
    });
    return missing_.size() != before;
}

DirectoryWatcher::~DirectoryWatcher() {
#if defined(__linux__)
    if (fd_ >= 0) ::close(fd_);
#endif
}

std::chrono::milliseconds DirectoryWatcher::pollPeriod() const {
    return live() ? std::chrono::milliseconds::max() : fallbackPeriod_;
}

void DirectoryWatcher::watchFolder(const fs::path& folder) {
#if defined(__linux__)
    if (fd_ < 0) return;
    // Appends show as IN_MODIFY; atomic replacements as IN_MOVED_TO; new session files as IN_CREATE.
    constexpr std::uint32_t kMask = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                    IN_DELETE_SELF | IN_ONLYDIR;
    const int wd = ::inotify_add_watch(fd_, folder.c_str(), kMask);
    if (wd >= 0) {
        folders_[wd] = folder;
    } else if (errno == ENOSPC || errno == ENOMEM) {
        // Out of watches: changes in the unwatched part would go unseen, so poll instead.
        ::close(fd_);
        fd_ = -1;
        folders_.clear();
    }
#else
    (void)folder;
#endif
}

void DirectoryWatcher::watchTree(const fs::path& root) {
    std::error_code error;
    if (!fs::is_directory(root, error)) return;
    watchFolder(root);
    for (fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, error), end;
         fd_ >= 0 && !error && it != end; it.increment(error)) {
        std::error_code kindError;
        if (it->is_directory(kindError) && !it->is_symlink(kindError)) watchFolder(it->path());
    }
}

bool DirectoryWatcher::changed() {
    if (fd_ < 0) {
        const auto now = std::chrono::steady_clock::now();
        if (now - lastFallback_ < fallbackPeriod_) return false;
        lastFallback_ = now;
        return true;
    }
    bool any = false;
#if defined(__linux__)
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        const ssize_t length = ::read(fd_, buffer, sizeof buffer);
        if (length <= 0) break;  // EAGAIN: drained
        for (ssize_t at = 0; at < length;) {
            inotify_event event;
            std::memcpy(&event, buffer + at, sizeof event);
            const char* name = buffer + at + sizeof(inotify_event);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event.len);
            if (event.mask & IN_Q_OVERFLOW) {
                any = true;
                continue;
            }
            if (event.mask & IN_IGNORED) {
                folders_.erase(event.wd);
                continue;
            }
            any = true;
            const auto folder = folders_.find(event.wd);
            // A folder made (or moved in) after the start: its files count from now on, and
            // whatever it already holds is found by the scan this change triggers.
            if (folder != folders_.end() && (event.mask & IN_ISDIR) && (event.mask & (IN_CREATE | IN_MOVED_TO)) &&
                event.len > 0) {
                watchTree(folder->second / name);
            }
        }
    }
#endif
    return any;
}

}  // namespace gaugepoint
