#include "gaugepoint/importers/ScanLock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {

ScanLock::ScanLock(const std::filesystem::path& file) {
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0 || ::flock(fd_, LOCK_EX) != 0) {
        const int error = errno;
        if (fd_ >= 0) ::close(fd_);
        throw Error("cannot lock " + file.string() + ": " + std::strerror(error));
    }
}

ScanLock::~ScanLock() { ::close(fd_); }

}  // namespace gaugepoint
