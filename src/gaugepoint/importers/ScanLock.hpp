#pragma once

// The lock that serialises scans of one App Group directory.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {

// Another scan held the lock for longer than this one would wait. What the holder wrote on
// taking the lock says who it is and since when (none when it could not be read).
class ScanLockBusy : public Error {
public:
    ScanLockBusy(std::optional<pid_t> holder, std::optional<std::chrono::seconds> heldFor);
    std::optional<pid_t> holder() const noexcept { return holder_; }

private:
    std::optional<pid_t> holder_;
};

// Held for the whole scan: a second scan (a timer and a person) waits for the first, at most
// `wait`, then throws ScanLockBusy, so a stopped or hung scan never blocks the next command
// without a word. Throws Error naming the file when it cannot be opened or locked.
class ScanLock {
public:
    ScanLock(const std::filesystem::path& file, std::chrono::milliseconds wait);
    ~ScanLock();
    ScanLock(const ScanLock&) = delete;
    ScanLock& operator=(const ScanLock&) = delete;

    // Writes this process's id into the file, whose modification time then says since when the
    // lock is held, for a waiting scan to name its holder; the file is emptied again on release.
    // Only a scan with work to do says so: one that finds nothing changed writes nothing at all.
    void announce();

private:
    int fd_ = -1;
    bool announced_ = false;
};

}  // namespace gaugepoint
