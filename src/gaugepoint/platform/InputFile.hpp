#pragma once

// Reading outside input (files named by the user, standard input, documents of other apps)
// with a bound per kind, so an endless pipe, a device such as /dev/zero or a file of many GB
// ends in one clear error instead of exhausting memory. Every command and loader that reads
// outside input goes through readInputFile() or InputFile.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {

// Documents (snapshots, sibling files, session and inbox documents, records): 64 MiB.
inline constexpr std::uint64_t kMaxDocumentBytes = std::uint64_t{64} << 20;
// Bulk inputs of the codecs and the tokenizer, unless the user allows more: 1 GiB.
inline constexpr std::uint64_t kMaxBulkInputBytes = std::uint64_t{1} << 30;

// The most bytes read of one kind of input, and how the message past it names the kind.
struct InputLimit {
    std::uint64_t maxBytes = kMaxDocumentBytes;
    std::string what;      // "a snapshot document": "..., the most a snapshot document may be"
    std::string remedy{};  // appended when not empty, e.g. "; --max-input-bytes N allows more"

    // A document of the given kind (kMaxDocumentBytes).
    static InputLimit document(std::string what) { return {kMaxDocumentBytes, std::move(what)}; }
};

// An input passed its limit. what(): "/dev/zero is larger than 64 MiB, the most a snapshot
// document may be".
class InputTooLargeError : public Error {
public:
    InputTooLargeError(const std::string& name, const InputLimit& limit);
};

// "64 MiB", "1 GiB", "1.5 GiB", "1000 bytes": a limit as a person reads it.
std::string describeByteCount(std::uint64_t bytes);

// One outside input open for reading: the file at `path`, or standard input for "" and "-".
// Not thread-safe; closes the file when destroyed.
class InputFile {
public:
    // Throws Error "cannot read <path>: <reason>", or InputTooLargeError when the input is a
    // regular file already larger than the limit (nothing is read then).
    InputFile(const std::filesystem::path& path, InputLimit limit);
    // The same over a file the caller opened and keeps open, read from its current position;
    // `name` names it in errors.
    InputFile(int fd, std::string name, InputLimit limit);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Reads up to `n` bytes into `buffer`; 0 only at the end. Throws InputTooLargeError as soon
    // as the input has given more than its limit, Error when the system fails to read.
    std::size_t read(void* buffer, std::size_t n);

    // The rest of the input, whole. Throws like read(), and Error "out of memory while
    // reading <name> ..." when the bytes do not fit in memory.
    std::string readAll();

    // The path as given, or "standard input".
    const std::string& name() const noexcept { return name_; }

    // The size of a regular file; nothing for a pipe, a terminal or a device.
    std::optional<std::uint64_t> size() const noexcept { return size_; }

private:
    void judgeSize();

    std::string name_;
    InputLimit limit_;
    int fd_ = -1;
    bool ownsFd_ = false;
    std::optional<std::uint64_t> size_;
    std::uint64_t taken_ = 0;  // bytes read so far
};

// The whole input at `path` ("" and "-": standard input) within its limit. Throws as InputFile.
std::string readInputFile(const std::filesystem::path& path, const InputLimit& limit);

}  // namespace gaugepoint
