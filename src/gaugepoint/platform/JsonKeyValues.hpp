#pragma once

// The two ways a flat store of JSON values under text keys is kept, shared by the user defaults
// and the ubiquitous key-value store: in memory for one process, or as one JSON object file
// that several processes change at the same time.

#include <boost/json/value.hpp>

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace gaugepoint {

// JSON values under text keys, in memory. Safe to use from several threads.
class InMemoryJsonValues {
public:
    std::optional<boost::json::value> value(std::string_view key) const;
    // Stores `value` under `key`, or removes the key when `value` is empty. Never throws
    // (beyond std::bad_alloc).
    void update(std::string_view key, const std::optional<boost::json::value>& value);

private:
    mutable std::mutex lock_;
    std::map<std::string, boost::json::value, std::less<>> values_;
};

// JSON values under text keys, kept as one JSON object in `file`. Every change re-reads the
// file under an exclusive lock on "<file>.lock" and replaces it atomically, so a second
// process's changes are kept and a reader never sees half a file. A missing, damaged or
// non-object file reads as empty; the next change first sets a damaged one aside
// (setAsideUnreadableFile) and then starts a new one. Safe to use from several threads and
// processes.
class JsonObjectFile {
public:
    explicit JsonObjectFile(std::filesystem::path file) : file_(std::move(file)) {}

    std::optional<boost::json::value> value(std::string_view key) const;
    // Stores `value` under `key`, or removes the key when `value` is empty. Creates the file's
    // directory when missing. Throws gaugepoint::Error naming the file when it cannot be kept.
    void update(std::string_view key, const std::optional<boost::json::value>& value);

    const std::filesystem::path& file() const { return file_; }

private:
    std::filesystem::path file_;
};

}  // namespace gaugepoint
