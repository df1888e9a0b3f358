#pragma once

// The inbox's cross-process change signal.
//
// The signal is a file in the App Group directory named after the change name
// ("<App Group identifier>.gaugepoint.notify-inbox.did-change"). Every write of the inbox that
// changed rows opens it for writing, moves its modification time forward and closes it. Another
// process learns of the change by watching the file (inotify IN_CLOSE_WRITE or IN_ATTRIB on
// Linux, kqueue NOTE_ATTRIB on macOS) or by comparing its modification time between polls: the
// time moves strictly forward on every post, even when two posts fall within one tick of the
// file system's clock. The file holds no data and may be deleted at any time; the next post
// creates it again.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace gaugepoint {

class NotifyInboxChangeSignal {
public:
    static constexpr std::string_view changeNameSuffix = ".gaugepoint.notify-inbox.did-change";

    // "<appGroupIdentifier>.gaugepoint.notify-inbox.did-change".
    static std::string changeName(std::string_view appGroupIdentifier);

    explicit NotifyInboxChangeSignal(std::filesystem::path file) : file_(std::move(file)) {}

    // Moves the file's modification time forward (creating the file when missing). Never
    // throws: a signal that cannot be posted must not fail the write that caused it.
    void post() const noexcept;
    // The modification time of the last post, in nanoseconds since 1970; none before the first.
    std::optional<long long> lastPostedNanoseconds() const noexcept;

    const std::filesystem::path& file() const { return file_; }

private:
    std::filesystem::path file_;
};

}  // namespace gaugepoint
