#include "gaugepoint/importers/ScanLock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <thread>

namespace gaugepoint {
namespace {

// How often a waiting scan tries the lock again.
constexpr std::chrono::milliseconds kRetry{50};

std::string durationText(std::chrono::seconds held) {
    const auto s = held.count();
    if (s < 60) return std::to_string(s) + " s";
    if (s < 3600) return std::to_string(s / 60) + " min";
    return std::to_string(s / 3600) + " h " + std::to_string(s % 3600 / 60) + " min";
}

std::string busyText(std::optional<pid_t> holder, std::optional<std::chrono::seconds> heldFor) {
    std::string text = "another scan";
    if (holder) text += " (pid " + std::to_string(*holder) + ")";
    text += heldFor ? " has held the lock for " + durationText(*heldFor) : " holds the lock";
    return text;
}

[[noreturn]] void fail(const std::filesystem::path& file, int error) {
    throw Error("cannot lock " + file.string() + ": " + std::strerror(error));
}

// Throws ScanLockBusy with what the holder wrote into the file.
[[noreturn]] void busy(int fd) {
    char text[32] = {};
    const ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
    std::optional<pid_t> holder;
    pid_t pid = 0;
    if (n > 0 && std::from_chars(text, text + n, pid).ec == std::errc() && pid > 0) holder = pid;
    std::optional<std::chrono::seconds> heldFor;
    struct stat info {};
    if (holder && ::fstat(fd, &info) == 0) {
        const auto age = std::chrono::system_clock::now() - std::chrono::system_clock::from_time_t(info.st_mtime);
        heldFor = std::max(std::chrono::duration_cast<std::chrono::seconds>(age), std::chrono::seconds{0});
    }
    ::close(fd);
    throw ScanLockBusy(holder, heldFor);
}

}  // namespace

ScanLockBusy::ScanLockBusy(std::optional<pid_t> holder, std::optional<std::chrono::seconds> heldFor)
    : Error(busyText(holder, heldFor)), holder_(holder) {}

ScanLock::ScanLock(const std::filesystem::path& file, std::chrono::milliseconds wait) {
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) fail(file, errno);
    const auto giveUp = std::chrono::steady_clock::now() + wait;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error == EINTR) continue;
        if (error != EWOULDBLOCK) {
            ::close(fd_);
            fail(file, error);
        }
        if (std::chrono::steady_clock::now() >= giveUp) busy(fd_);
        std::this_thread::sleep_for(kRetry);
    }
}

// Best effort: a lock without its holder's id is still a lock, and a waiting scan then says less.
void ScanLock::announce() {
    const std::string pid = std::to_string(::getpid()) + "\n";
    announced_ = ::ftruncate(fd_, 0) == 0 && ::pwrite(fd_, pid.data(), pid.size(), 0) == ssize_t(pid.size());
}

ScanLock::~ScanLock() {
    // An id left behind would name a process that no longer holds the lock.
    if (announced_ && ::ftruncate(fd_, 0) != 0) {
        // nothing to do: see announce()
    }
    ::close(fd_);
}

}  // namespace gaugepoint
