#include "gaugepoint/platform/InputFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>

namespace gaugepoint {
namespace {

[[noreturn]] void failRead(const std::string& name, int error) {
    throw Error("cannot read " + name + ": " + std::strerror(error));
}

}  // namespace

InputTooLargeError::InputTooLargeError(const std::string& name, const InputLimit& limit)
    : Error(name + " is larger than " + describeByteCount(limit.maxBytes) + ", the most " + limit.what + " may be" +
            limit.remedy) {}

std::string describeByteCount(std::uint64_t bytes) {
    static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    std::string unit;
    std::uint64_t scale = 1;
    for (const char* u : kUnits) {
        if (bytes < scale * 1024) break;
        scale *= 1024;
        unit = u;
    }
    if (unit.empty() || bytes % (scale / 8) != 0) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    // Whole units, or eighths of one written as a decimal ("1.5 GiB", "2.125 MiB").
    std::string text = std::to_string(bytes / scale);
    if (const std::uint64_t eighths = bytes % scale / (scale / 8); eighths != 0) {
        std::string fraction = std::to_string(eighths * 125);  // thousandths
        fraction.insert(0, 3 - fraction.size(), '0');
        while (fraction.back() == '0') fraction.pop_back();
        text += "." + fraction;
    }
    return text + " " + unit;
}

InputFile::InputFile(const std::filesystem::path& path, InputLimit limit) : limit_(std::move(limit)) {
    if (path.empty() || path == "-") {
        name_ = "standard input";
        fd_ = STDIN_FILENO;
    } else {
        name_ = path.string();
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) failRead(name_, errno);
        ownsFd_ = true;
    }
    judgeSize();
}

InputFile::InputFile(int fd, std::string name, InputLimit limit) : name_(std::move(name)), limit_(std::move(limit)), fd_(fd) {
    judgeSize();
}

void InputFile::judgeSize() {
    // A regular file says how large it is: judged before a byte is read. Pipes and devices
    // are judged by what they give.
    struct stat info {};
    if (::fstat(fd_, &info) == 0 && S_ISREG(info.st_mode)) {
        size_ = static_cast<std::uint64_t>(info.st_size);
        if (*size_ > limit_.maxBytes) {
            if (ownsFd_) ::close(fd_);
            fd_ = -1;
            throw InputTooLargeError(name_, limit_);
        }
    }
}

InputFile::~InputFile() {
    if (ownsFd_ && fd_ >= 0) ::close(fd_);
}

std::size_t InputFile::read(void* buffer, std::size_t n) {
    // Never more than one byte past the limit: enough to tell that it was passed.
    const std::uint64_t left = limit_.maxBytes - std::min(taken_, limit_.maxBytes);
    const std::uint64_t allowed = left == UINT64_MAX ? left : left + 1;
    n = static_cast<std::size_t>(std::min<std::uint64_t>(n, allowed));
    for (;;) {
        const ssize_t got = ::read(fd_, buffer, n);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failRead(name_, errno);
        taken_ += static_cast<std::uint64_t>(got);
        if (taken_ > limit_.maxBytes) throw InputTooLargeError(name_, limit_);
        return static_cast<std::size_t>(got);
    }
}

std::string InputFile::readAll() {
    std::string data;
    try {
        for (;;) {
            // A regular file is read into one allocation of what is left of it (plus one byte,
            // to see the end or notice a file that grew meanwhile). Pipes and devices take
            // steps that grow with what came, so the copies stay linear.
            const std::size_t step = size_ && taken_ <= *size_
                                         ? static_cast<std::size_t>(*size_ - taken_) + 1
                                         : std::max(std::size_t{64} << 10, std::min(data.size(), std::size_t{64} << 20));
            const std::size_t at = data.size();
            data.resize(at + step);
            const std::size_t got = read(data.data() + at, step);
            data.resize(at + got);
            if (got == 0) return data;
        }
    } catch (const std::bad_alloc&) {
        const std::uint64_t held = data.size();
        data = std::string();
        throw Error("out of memory while reading " + name_ + " (" + describeByteCount(held) + " read)");
    }
}

std::string readInputFile(const std::filesystem::path& path, const InputLimit& limit) {
    return InputFile(path, limit).readAll();
}

}  // namespace gaugepoint
