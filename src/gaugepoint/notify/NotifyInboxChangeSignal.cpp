#include "gaugepoint/notify/NotifyInboxChangeSignal.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

namespace gaugepoint {
namespace {

constexpr long long kNanosecondsPerSecond = 1'000'000'000;

long long nanoseconds(const timespec& time) { return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec; }

timespec fromNanoseconds(long long value) {
    return {static_cast<time_t>(value / kNanosecondsPerSecond), static_cast<long>(value % kNanosecondsPerSecond)};
}

timespec modificationTime(const struct stat& info) {
#if defined(__APPLE__)
    return info.st_mtimespec;
#else
    return info.st_mtim;
#endif
}

}  // namespace

std::string NotifyInboxChangeSignal::changeName(std::string_view appGroupIdentifier) {
    return std::string(appGroupIdentifier) + std::string(changeNameSuffix);
}

void NotifyInboxChangeSignal::post() const noexcept {
    const int fd = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    // The file system stamps "now" at its clock's tick (often several milliseconds), so two posts
    // close together could leave the same time; an explicit time one nanosecond past the last
    // keeps every post visible to a poller.
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    long long next = nanoseconds(now);
    struct stat info {};
    if (::fstat(fd, &info) == 0 && nanoseconds(modificationTime(info)) >= next) {
        next = nanoseconds(modificationTime(info)) + 1;
    }
    const timespec times[2] = {{0, UTIME_OMIT}, fromNanoseconds(next)};
    ::futimens(fd, times);
    ::close(fd);  // a watcher on Linux sees IN_ATTRIB for the time and IN_CLOSE_WRITE here
}

std::optional<long long> NotifyInboxChangeSignal::lastPostedNanoseconds() const noexcept {
    struct stat info {};
    if (::stat(file_.c_str(), &info) != 0) return std::nullopt;
    return nanoseconds(modificationTime(info));
}

}  // namespace gaugepoint
