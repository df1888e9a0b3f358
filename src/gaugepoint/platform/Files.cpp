#include "gaugepoint/platform/Files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {
namespace {

[[noreturn]] void fail(const std::string& what, const std::filesystem::path& path, int error) {
    std::string message = what;
    message.append(" ").append(path.string()).append(": ").append(std::strerror(error));
    throw Error(message);
}

// Closes the descriptor and removes the temporary unless released.
struct TemporaryFile {
    std::string path;
    int fd = -1;
    bool keep = false;
    ~TemporaryFile() {
        if (fd >= 0) ::close(fd);
        if (!keep) ::unlink(path.c_str());
    }
};

}  // namespace

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    TemporaryFile tmp;
    const auto dir = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    std::string name = path.filename().string();
    name.insert(name.begin(), '.');
    name.append(".XXXXXX");
    tmp.path = (dir / name).string();
    tmp.fd = ::mkstemp(tmp.path.data());
    if (tmp.fd < 0) {
        tmp.keep = true;  // nothing was created
        fail("cannot write", path, errno);
    }
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(tmp.fd, bytes.data() + written, bytes.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fail("cannot write", path, errno);
        written += std::size_t(n);
    }
    if (::fsync(tmp.fd) != 0) fail("cannot write", path, errno);
    // Keep the permissions a plain open() would give rather than mkstemp's 0600.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(tmp.fd, 0666 & ~mask);
    if (::close(tmp.fd) != 0) {
        tmp.fd = -1;
        fail("cannot write", path, errno);
    }
    tmp.fd = -1;
    if (::rename(tmp.path.c_str(), path.c_str()) != 0) fail("cannot write", path, errno);
    tmp.keep = true;
}

namespace {

// An open file descriptor for reading, closed on every path out.
class ReadableFile {
public:
    explicit ReadableFile(const std::filesystem::path& path) : path_(path), fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (fd_ < 0) fail("cannot read", path, errno);
    }
    ~ReadableFile() { ::close(fd_); }
    ReadableFile(const ReadableFile&) = delete;
    ReadableFile& operator=(const ReadableFile&) = delete;

    std::string readAll() {
        std::string data;
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) fail("cannot read", path_, errno);
            if (n == 0) return data;
            data.append(buffer, std::size_t(n));
        }
    }

private:
    const std::filesystem::path& path_;
    int fd_;
};

}  // namespace

std::string readWholeFile(const std::filesystem::path& path) { return ReadableFile{path}.readAll(); }

FileContents readFileNoticingRewrites(const std::filesystem::path& path) {
    FileContents contents;
    contents.bytes = ReadableFile{path}.readAll();
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

}  // namespace gaugepoint
