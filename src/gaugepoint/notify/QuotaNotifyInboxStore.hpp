#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "gaugepoint/model/QuotaNotifyInbox.hpp"
#include "gaugepoint/notify/NotifyInboxChangeSignal.hpp"
#include "gaugepoint/notify/NotifyInboxPageCache.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

enum class QuotaNotifyInboxStoreErrorKind { missingAppGroupContainer, sqliteFailure };

class QuotaNotifyInboxStoreError : public KindedError<QuotaNotifyInboxStoreErrorKind> {
public:
    // No App Group directory; carries the App Group identifier.
    static QuotaNotifyInboxStoreError missingAppGroupContainer(const std::string& identifier) {
        return {Kind::missingAppGroupContainer, "The App Group container is unavailable: " + identifier + "."};
    }
    // The step's label, ": " and SQLite's message ("execute trimOldEntries: database is locked").
    static QuotaNotifyInboxStoreError sqliteFailure(const std::string& message) { return {Kind::sqliteFailure, message}; }

private:
    using KindedError::KindedError;
};

// Where a keyset page starts: the entries strictly after this one in list order (created_at
// descending, then envelope_id descending).
struct NotifyInboxCursor {
    Date createdAt;
    std::string envelopeID;

    // The cursor that continues after `entry`.
    static NotifyInboxCursor after(const QuotaNotifyArchiveEntry& entry) { return {entry.createdAt, entry.envelopeID}; }
    // "CREATED_AT,ENVELOPE_ID": the seconds since 1970 in shortest round-trip form, so the text
    // names the stored time exactly ("1795251600.123456789,env-2").
    std::string toString() const;
    // The cursor of a toString() text; none when it is not one. The envelope id is everything
    // after the first comma.
    static std::optional<NotifyInboxCursor> parse(std::string_view text);

    bool operator==(const NotifyInboxCursor&) const = default;
};

// Which id a thread is named by: the messages' thread id or their group id.
enum class NotifyInboxThreadGrouping { thread, group };

// The notification inbox in "quota-notify-inbox.sqlite": every delivered or archived message,
// newest first. A value: copies, and every store of the same file in this process, share the
// file's two connections and one page cache. Thread-safe.
//
// Writes run on the file's writer connection and reads on its reader connection (WAL), so a list
// can be read while a write runs. Reads never throw: any failure yields an empty result. Writes throw
// QuotaNotifyInboxStoreError. A write that changed rows posts quotaNotifyInboxDidChange to
// NotificationCenter::shared() after releasing the write side, and the cross-process signal.
//
// The table is schema version 2 (PRAGMA user_version). A database of any other version is
// rebuilt empty when first opened; a file that is not a SQLite database is reported and left as
// it is.
class QuotaNotifyInboxStore : public SQLiteStore<QuotaNotifyInboxStoreError> {
public:
    static constexpr std::string_view defaultFilename = "quota-notify-inbox.sqlite";
    static constexpr std::int64_t schemaVersion = 2;
    // Entries per page of the inbox list; the first page of this size is what the cache keeps.
    static constexpr std::int64_t defaultPageSize = 50;
    static constexpr std::int64_t maxCachedPageSize = 4 * defaultPageSize;
    // In-process notification posted after every write that changed rows.
    static constexpr std::string_view quotaNotifyInboxDidChange = "quota.notify.inbox.did_change";

    explicit QuotaNotifyInboxStore(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard());

    // databaseURL(): the database file; throws missingAppGroupContainer when there is no
    // directory for it.
    // The reverse-DNS name of the cross-process signal, and the file that carries it (beside the
    // database; see NotifyInboxChangeSignal).
    std::string crossProcessChangeName() const;
    std::filesystem::path changeSignalURL() const;
    // Opens and sets up both connections now. Throws the error a write would meet; lets a caller
    // tell "empty" from "unreadable" before it reads.
    void ensureOpen() const;

    // ---- reads: never throw ----

    // Version 2, every entry newest first, no mutations (the store keeps none).
    QuotaNotifyInbox load() const noexcept;
    // `limit` entries after skipping `offset`, newest first.
    std::vector<QuotaNotifyArchiveEntry> loadPage(std::int64_t offset, std::int64_t limit) const noexcept;
    // `limit` entries after `before` (keyset paging), or the first page without a cursor. A first
    // page of up to maxCachedPageSize entries is kept and served from the page cache.
    std::vector<QuotaNotifyArchiveEntry> loadPage(const std::optional<NotifyInboxCursor>& before,
                                                  std::int64_t limit) const noexcept;
    std::vector<QuotaNotifyArchiveEntry> loadAllEntries() const noexcept;
    // Rows in the table (cached like the first page); 0 on failure.
    std::int64_t totalCount() const noexcept;
    bool contains(std::string_view envelopeID) const noexcept;
    std::unordered_set<std::string> knownEnvelopeIDs() const noexcept;
    // Envelope ids of one thread (by thread id or group id) or one category, newest first.
    std::vector<std::string> envelopeIDs(std::string_view threadID, NotifyInboxThreadGrouping grouping) const noexcept;
    std::vector<std::string> envelopeIDsMatchingCategory(std::string_view category) const noexcept;

    // ---- writes: throw QuotaNotifyInboxStoreError ----

    // Inserts or replaces one entry by envelope id.
    void upsert(const QuotaNotifyArchiveEntry& entry) const;
    // Inserts or replaces every entry in one transaction: all are written or none.
    void upsert(const std::vector<QuotaNotifyArchiveEntry>& entries) const;
    void deleteMessage(std::string_view envelopeID) const;
    // Each returns how many rows went. An empty id list runs no statement and returns 0.
    std::int64_t deleteMessages(const std::vector<std::string>& envelopeIDs) const;
    std::int64_t deleteMessagesMatchingCategory(std::string_view category) const;
    // Deletes the messages of one thread through their id list, in one transaction.
    std::int64_t deleteThread(std::string_view threadID, NotifyInboxThreadGrouping grouping) const;
    // Deletes every row.
    std::int64_t clear() const;
    // Deletes entries created more than `olderThanSeconds` before the clock's now, read once the
    // write side is held.
    std::int64_t trimOldEntries(double olderThanSeconds) const;
    // Checkpoints the write-ahead log (passive: never waits for the other process).
    void walCheckpoint() const noexcept;

    // Change notifications this process has posted (all inbox files together).
    std::uint64_t notifyEventCount() const noexcept;

private:
    template <class Operation>
    std::int64_t write(Operation&& operation) const;
    template <class Result, class Operation>
    Result read(Operation&& operation) const noexcept;
    void postChange() const;

    std::shared_ptr<NotifyInboxPageCache> cache_;
};

}  // namespace gaugepoint
