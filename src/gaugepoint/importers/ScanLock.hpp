#pragma once

// The lock that serialises scans of one App Group directory.

#include <filesystem>

namespace gaugepoint {

// Held for the whole scan: a second scan (a timer and a person) waits for the first. Throws
// Error naming the file when it cannot be opened or locked.
class ScanLock {
public:
    explicit ScanLock(const std::filesystem::path& file);
    ~ScanLock();
    ScanLock(const ScanLock&) = delete;
    ScanLock& operator=(const ScanLock&) = delete;

private:
    int fd_ = -1;
};

}  // namespace gaugepoint
