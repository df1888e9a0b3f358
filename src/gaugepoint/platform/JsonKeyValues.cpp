#include "gaugepoint/platform/JsonKeyValues.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <boost/json/serialize.hpp>

#include <cerrno>
#include <cstring>

#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

std::optional<boost::json::value> InMemoryJsonValues::value(std::string_view key) const {
    std::lock_guard guard{lock_};
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
}

void InMemoryJsonValues::update(std::string_view key, const std::optional<boost::json::value>& value) {
    std::lock_guard guard{lock_};
    if (value) {
        values_.insert_or_assign(std::string(key), *value);
    } else if (const auto found = values_.find(key); found != values_.end()) {
        values_.erase(found);
    }
}

namespace {

// The file's object; empty when it is missing. `unreadable` (when given) tells whether a file
// was there that is not a JSON object within the document limit.
boost::json::object readObject(const std::filesystem::path& file, bool* unreadable = nullptr) {
    std::error_code missing;
    if (!std::filesystem::exists(file, missing)) return {};
    try {
        auto document = json::parse(readInputFile(file, InputLimit::document("a defaults file")));
        if (document.is_object()) return std::move(document.get_object());
    } catch (const Error&) {
    }
    if (unreadable) *unreadable = true;
    return {};
}

// Holds an exclusive lock on "<file>.lock" for one read-modify-write.
class FileLock {
public:
    explicit FileLock(const std::filesystem::path& file) {
        const std::string lockPath = file.string() + ".lock";
        fd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0 || ::flock(fd_, LOCK_EX) != 0) {
            const int error = errno;
            if (fd_ >= 0) ::close(fd_);
            throw Error("cannot lock " + lockPath + ": " + std::strerror(error));
        }
    }
    ~FileLock() { ::close(fd_); }  // closing releases the lock
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int fd_ = -1;
};

}  // namespace

std::optional<boost::json::value> JsonObjectFile::value(std::string_view key) const {
    const auto object = readObject(file_);
    const auto* found = object.if_contains(key);
    if (!found) return std::nullopt;
    return *found;
}

void JsonObjectFile::update(std::string_view key, const std::optional<boost::json::value>& value) {
    std::error_code ignored;
    std::filesystem::create_directories(file_.parent_path(), ignored);
    FileLock lock{file_};
    bool unreadable = false;
    auto object = readObject(file_, &unreadable);
    // A damaged file, or another program's, reads as empty but is never overwritten.
    if (unreadable) setAsideUnreadableFile(file_);
    if (value) {
        object[key] = *value;
    } else {
        object.erase(key);
    }
    writeFileAtomically(file_, boost::json::serialize(object) + "\n");
}

}  // namespace gaugepoint
