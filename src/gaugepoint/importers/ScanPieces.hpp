#pragma once

// What passes from the scan's reading threads to its writing one: the records of one read of
// one file (a piece), and the bounded queue between them.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/QuotaLogScanner.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"

namespace gaugepoint::scanning {

// A scan reports at most this many problems (the rest are counted only).
constexpr std::size_t kMaximumProblems = 1000;

// What one read of a file gave, waiting for its transaction. Under metadataOnly only the prompts
// are kept (without text): with the counted responses they give a session's message and prompt
// counts, without a row per log line.
class Collected final : public LogRecordSink {
public:
    Collected(std::string path, QuotaSessionContentCaptureMode capture)
        : path_(std::move(path)), promptsOnly_(capture == QuotaSessionContentCaptureMode::metadataOnly) {}

    void usage(QuotaUsageEntry entry) override { usage_.push_back(std::move(entry)); }
    void message(QuotaImportedMessage message) override {
        if (promptsOnly_ && !message.isPrompt) return messageSkipped(message.sessionID);
        if (firstSession_.empty()) firstSession_ = message.sessionID;
        messages_.push_back(std::move(message));
    }
    bool keepsEveryMessage() const override { return !promptsOnly_; }
    void messageSkipped(std::string_view sessionID) override {
        if (firstSession_.empty()) firstSession_ = sessionID;
    }
    void session(const std::string& sessionID, const std::string& projectPath) override {
        if (firstSession_.empty()) firstSession_ = sessionID;
        sessions_.emplace_back(sessionID, projectPath);
    }
    void sessionTitle(const std::string& sessionID, const std::string& title) override {
        titles_.emplace_back(sessionID, title);
    }
    void rateLimits(QuotaObservedRateLimits limits) override {
        if (!limits_ || limits.observedAt > limits_->observedAt) limits_ = std::move(limits);
    }
    void badLine(std::int64_t offset, std::string reason) override { bad_.push_back({path_, offset, std::move(reason)}); }

    void clear() {
        usage_.clear();
        messages_.clear();
        sessions_.clear();
        titles_.clear();
        limits_.reset();
        bad_.clear();
    }

    std::vector<QuotaUsageEntry> usage_;
    std::vector<QuotaImportedMessage> messages_;
    std::vector<std::pair<std::string, std::string>> sessions_;
    std::vector<std::pair<std::string, std::string>> titles_;  // session id, title as the tool wrote it
    std::optional<QuotaObservedRateLimits> limits_;
    std::vector<QuotaScanProblem> bad_;
    std::string firstSession_;

private:
    std::string path_;
    bool promptsOnly_;
};

// One read of one file, parsed and waiting for its transaction.
struct Piece {
    const CodingToolLogs* tool = nullptr;
    QuotaSessionFileRegistryEntry entry;   // the file's entry as this piece leaves it
    std::optional<std::int64_t> expected;  // the position the registry must still hold
    bool forgetFirst = false;              // what the file gave before is replaced
    std::vector<std::string> rowGroups;    // else what these rows of a database gave is replaced
    std::string state;                     // the parser's state after this piece
    std::optional<std::int64_t> prefixDigest;  // of the file's bytes up to this piece's end
    std::unique_ptr<Collected> records;
    std::int64_t bytes = 0;                // of the file, read for this piece
};

// Hands pieces from the reading threads to the writing one. It holds pieces of up to 64 MiB of
// files at once (one piece of any size when empty), so memory stays bounded whatever the files
// hold, while many small files' pieces can wait for the writer and keep the readers going.
//
// Pieces pass in groups, and the writer hands back the records it wrote for a reader to free: a
// wake-up per piece, and freeing on the writer's thread what a reader allocated, were a good
// part of the writer's time when the pieces are many small files.
class PieceQueue {
public:
    // Waits for room for the whole group (any group when the queue is empty), queues it in order
    // and empties `pieces`; false when the writer has given up. Frees, on this thread, the
    // records the writer has handed back.
    bool push(std::vector<Piece>& pieces);
    // The next piece; none once the readers have finished and everything was taken. `written`
    // (the records of the piece before, if any) is left for a reader to free.
    std::optional<Piece> pop(std::unique_ptr<Collected> written = nullptr);
    // No more pieces will come.
    void finish();
    // The writer gives up: pushes return false from now on.
    void abandon();

private:
    static constexpr std::size_t kMostPieces = 256;
    static constexpr std::int64_t kMostBytes = std::int64_t(64) << 20;
    std::mutex mutex_;
    std::condition_variable ready_, roomLeft_;
    std::deque<Piece> pieces_;
    std::vector<std::unique_ptr<Collected>> written_;
    std::int64_t bytes_ = 0;
    int readersWaiting_ = 0;
    bool finished_ = false, abandoned_ = false;
};

}  // namespace gaugepoint::scanning
