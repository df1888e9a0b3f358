#include "gaugepoint/platform/Files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <utility>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {
namespace {

[[noreturn]] void fail(const std::string& what, const std::filesystem::path& path, int error) {
    std::string message = what;
    message.append(" ").append(path.string()).append(": ").append(std::strerror(error));
    throw Error(message);
}

}  // namespace

AtomicFileWriter::AtomicFileWriter(const std::filesystem::path& path) : path_(path) {
    const auto dir = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    std::string name = path.filename().string();
    name.insert(name.begin(), '.');
    name.append(".XXXXXX");
    temporary_ = (dir / name).string();
    fd_ = ::mkstemp(temporary_.data());
    if (fd_ < 0) fail("cannot write", path, errno);
}

AtomicFileWriter::~AtomicFileWriter() {
    if (fd_ >= 0) ::close(fd_);
    if (!committed_) ::unlink(temporary_.c_str());
}

void AtomicFileWriter::write(std::string_view bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + written, bytes.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fail("cannot write", path_, errno);
        written += std::size_t(n);
    }
}

void AtomicFileWriter::commit() {
    if (::fsync(fd_) != 0) fail("cannot write", path_, errno);
    // Keep the permissions a plain open() would give rather than mkstemp's 0600.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd_, 0666 & ~mask);
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) fail("cannot write", path_, errno);
    if (::rename(temporary_.c_str(), path_.c_str()) != 0) fail("cannot write", path_, errno);
    committed_ = true;
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    AtomicFileWriter file(path);
    file.write(bytes);
    file.commit();
}

FileContents readFileNoticingRewrites(const std::filesystem::path& path, const InputLimit& limit) {
    FileContents contents;
    contents.bytes = readInputFile(path, limit);
    // A writer that truncates and refills the file in place shows up as an empty file or as a
    // size that no longer matches what was read; one that renames a new file over it shows up
    // as a different size at the path. A pipe or device has no size to compare and cannot be
    // read twice, so what it gave is all there is.
    struct stat now {};
    const bool statted = ::stat(path.c_str(), &now) == 0;
    if (statted && !S_ISREG(now.st_mode)) return contents;
    const bool sizeChanged = !statted || std::size_t(now.st_size) != contents.bytes.size();
    contents.inFlux = contents.bytes.empty() || sizeChanged;
    return contents;
}

namespace {
std::mutex setAsideLock;
std::vector<std::string> setAsideNotices;
}  // namespace

std::filesystem::path setAsideUnreadableFile(const std::filesystem::path& file) {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    std::filesystem::path copy = file.string() + ".corrupt-" + stamp;
    for (int n = 2; std::filesystem::exists(copy); ++n) copy = file.string() + ".corrupt-" + stamp + "-" + std::to_string(n);
    std::error_code error;
    std::filesystem::rename(file, copy, error);
    if (error) {
        throw Error("cannot set aside " + file.string() + ", which could not be read, before replacing it: " +
                    error.message() + "; nothing was written");
    }
    std::lock_guard guard{setAsideLock};
    setAsideNotices.push_back(file.string() + " could not be read; it was kept as " + copy.string() +
                              " and a new one was started");
    return copy;
}

std::vector<std::string> takeSetAsideNotices() {
    std::lock_guard guard{setAsideLock};
    return std::exchange(setAsideNotices, {});
}

}  // namespace gaugepoint
