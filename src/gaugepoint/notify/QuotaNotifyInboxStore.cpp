#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"

#include <atomic>
#include <charconv>
#include <cmath>
#include <map>
#include <mutex>

#include "gaugepoint/notify/NotificationCenter.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

// ---- statements: the texts are shared with the companion app's store and must stay as they are ----

constexpr const char* kCreateSchema =
    "CREATE TABLE IF NOT EXISTS notify_inbox (\n"
    "    envelope_id TEXT PRIMARY KEY,\n"
    "    thread_id TEXT NOT NULL,\n"
    "    created_at REAL NOT NULL,\n"
    "    archived_at REAL NOT NULL,\n"
    "    origin TEXT NOT NULL,\n"
    "    title TEXT NOT NULL DEFAULT '',\n"
    "    subtitle TEXT,\n"
    "    body TEXT NOT NULL DEFAULT '',\n"
    "    source_id TEXT,\n"
    "    source_name TEXT,\n"
    "    source_line TEXT,\n"
    "    provider_id TEXT,\n"
    "    provider_display_name TEXT,\n"
    "    group_id TEXT,\n"
    "    icon_hint TEXT,\n"
    "    category TEXT NOT NULL DEFAULT 'general',\n"
    "    level TEXT,\n"
    "    is_archive INTEGER NOT NULL DEFAULT 1,\n"
    "    pairing_token TEXT,\n"
    "    mailbox_record_name TEXT,\n"
    "    delivered_via TEXT NOT NULL DEFAULT '[]',\n"
    "    cold_ext TEXT\n"
    ");\n"
    "CREATE INDEX IF NOT EXISTS idx_ni_created ON notify_inbox(created_at DESC);\n"
    "CREATE INDEX IF NOT EXISTS idx_ni_thread ON notify_inbox(thread_id);\n"
    "CREATE INDEX IF NOT EXISTS idx_ni_category ON notify_inbox(category);\n"
    "CREATE INDEX IF NOT EXISTS idx_ni_source ON notify_inbox(source_name);\n"
    "CREATE INDEX IF NOT EXISTS idx_ni_provider ON notify_inbox(provider_id);";
constexpr const char* kDropTable = "DROP TABLE IF EXISTS notify_inbox";
constexpr const char* kReadUserVersion = "PRAGMA user_version";

// The 22 columns in table order; every read selects them and the upsert binds them in this order.
constexpr const char* kColumns =
    "envelope_id, thread_id, created_at, archived_at, origin,\n"
    "title, subtitle, body, source_id, source_name, source_line,\n"
    "provider_id, provider_display_name, group_id, icon_hint,\n"
    "category, level, is_archive,\n"
    "pairing_token, mailbox_record_name, delivered_via, cold_ext";
constexpr int kColumnCount = 22;

const std::string kSelect = std::string("SELECT ") + kColumns;
const std::string kPageByOffset = kSelect + " FROM notify_inbox ORDER BY created_at DESC, envelope_id DESC LIMIT ? OFFSET ?";
const std::string kPageBefore = kSelect +
                                " FROM notify_inbox\nWHERE created_at < ? OR (created_at = ? AND envelope_id < ?)\n"
                                "ORDER BY created_at DESC, envelope_id DESC LIMIT ?";
const std::string kFirstPage = kSelect + " FROM notify_inbox ORDER BY created_at DESC, envelope_id DESC LIMIT ?";
const std::string kAllEntries = kSelect + " FROM notify_inbox ORDER BY created_at DESC, envelope_id DESC";
const std::string kCount = "SELECT COUNT(1) FROM notify_inbox";
const std::string kContains = "SELECT 1 FROM notify_inbox WHERE envelope_id = ? LIMIT 1";
const std::string kKnownIDs = "SELECT envelope_id FROM notify_inbox";
const std::string kIDsByThread =
    "SELECT envelope_id FROM notify_inbox WHERE thread_id = ? ORDER BY created_at DESC, envelope_id DESC";
const std::string kIDsByGroup =
    "SELECT envelope_id FROM notify_inbox WHERE group_id = ? ORDER BY created_at DESC, envelope_id DESC";
const std::string kIDsByCategory =
    "SELECT envelope_id FROM notify_inbox WHERE category = ? ORDER BY created_at DESC, envelope_id DESC";
const std::string kDataVersion = "PRAGMA data_version";

const char* idsOfThreadSQL(NotifyInboxThreadGrouping grouping) {
    return (grouping == NotifyInboxThreadGrouping::group ? kIDsByGroup : kIDsByThread).c_str();
}

const std::string kUpsert = [] {
    std::string sql = std::string("INSERT OR REPLACE INTO notify_inbox (\n") + kColumns + "\n) VALUES (";
    for (int i = 0; i < kColumnCount; ++i) sql += i ? ", ?" : "?";
    return sql + ")";
}();
const std::string kDeleteOne = "DELETE FROM notify_inbox WHERE envelope_id = ?";
constexpr const char* kDeleteInPrefix = "DELETE FROM notify_inbox WHERE envelope_id IN (";
const std::string kDeleteCategory = "DELETE FROM notify_inbox WHERE category = ?";
const std::string kClearReturning = "DELETE FROM notify_inbox RETURNING envelope_id";
const std::string kClearFallback = "DELETE FROM notify_inbox";
const std::string kTrim = "DELETE FROM notify_inbox WHERE created_at < ?";

// Ids per DELETE ... IN (...): far below every SQLite build's limit on parameters.
constexpr std::size_t kIDsPerDelete = 500;

// ---- schema ----

std::int64_t userVersion(sqlite::Connection& connection) {
    sqlite::Statement read{connection, kReadUserVersion, "read user_version", "read user_version"};
    return read.step() ? read.integer(0) : 0;
}

// Rebuilds the table empty unless the file is at schema version 2 (no row conversion is tried).
// The version is read again inside BEGIN IMMEDIATE, so two processes opening an old file at the
// same moment rebuild it once: the second finds version 2 and keeps the first one's rows.
void ensureSchema(sqlite::Connection& connection) {
    const std::int64_t target = QuotaNotifyInboxStore::schemaVersion;
    if (userVersion(connection) == target) return;  // no write lock needed on the common path
    const std::string label = "create schema v" + std::to_string(target);
    sqlite::Transaction transaction{connection, label};
    if (userVersion(connection) != target) {
        connection.exec(kDropTable, label);
        connection.exec(kCreateSchema, label);
        connection.exec(("PRAGMA user_version = " + std::to_string(target)).c_str(), "set user_version");
    }
    transaction.commit();
}

// Both connections of the file are set up alike: the schema block, no script of its own.
const SQLiteStoreSetup& inboxSetup() {
    static const SQLiteStoreSetup setup{"Unable to open inbox database at ", nullptr, ensureSchema, {"notify_inbox"}};
    return setup;
}

// One page cache per file, for the life of the process, like the connections.
std::shared_ptr<NotifyInboxPageCache> sharedPageCache(const std::filesystem::path& file) {
    static std::mutex registryLock;
    static std::map<std::filesystem::path, std::shared_ptr<NotifyInboxPageCache>> registry;
    std::lock_guard guard{registryLock};
    auto& slot = registry[file];
    if (!slot) slot = std::make_shared<NotifyInboxPageCache>();
    return slot;
}

std::atomic<std::uint64_t> postedChanges{0};

// ---- rows ----

std::string requiredText(const sqlite::Statement& row, int column) { return std::string(row.text(column).value_or("")); }

// A row as an entry. The JSON columns are the companion's to write too: a delivered_via or
// cold_ext that does not decode reads as empty rather than hiding the message.
QuotaNotifyArchiveEntry entryFromRow(const sqlite::Statement& row) {
    QuotaNotifyArchiveEntry entry;
    entry.envelopeID = requiredText(row, 0);
    entry.threadID = requiredText(row, 1);
    entry.createdAt = dateFromSeconds(row.real(2));
    entry.archivedAt = dateFromSeconds(row.real(3));
    entry.origin = requiredText(row, 4);
    entry.title = requiredText(row, 5);
    entry.subtitle = sqlite::optionalText(row, 6);
    entry.body = requiredText(row, 7);
    entry.sourceID = sqlite::optionalText(row, 8);
    entry.sourceName = sqlite::optionalText(row, 9);
    entry.sourceLine = sqlite::optionalText(row, 10);
    entry.providerID = sqlite::optionalText(row, 11);
    entry.providerDisplayName = sqlite::optionalText(row, 12);
    entry.groupID = sqlite::optionalText(row, 13);
    entry.iconHint = sqlite::optionalText(row, 14);
    entry.category = row.text(15) ? std::string(*row.text(15)) : "general";
    entry.level = sqlite::optionalText(row, 16);
    entry.isArchive = row.isNull(17) || row.integer(17) != 0;
    entry.pairingToken = sqlite::optionalText(row, 18);
    entry.mailboxRecordName = sqlite::optionalText(row, 19);
    if (const auto via = row.text(20)) {
        try {
            entry.deliveredVia = json::decode<std::vector<std::string>>(*via);
        } catch (const json::DecodingError&) {
        }
    }
    if (const auto cold = row.text(21)) {
        try {
            entry.coldExt = json::decode<NotifyInboxColdExt>(*cold);
        } catch (const json::DecodingError&) {
        }
    }
    return entry;
}

std::vector<QuotaNotifyArchiveEntry> readEntries(sqlite::Statement& select) {
    std::vector<QuotaNotifyArchiveEntry> entries;
    while (select.step()) entries.push_back(entryFromRow(select));
    return entries;
}

std::vector<std::string> readIDs(sqlite::Statement& select) {
    std::vector<std::string> ids;
    while (select.step()) ids.push_back(requiredText(select, 0));
    return ids;
}

void bindEntry(sqlite::Statement& upsert, const QuotaNotifyArchiveEntry& entry) {
    std::string deliveredVia, coldExt;
    try {
        deliveredVia = json::encode(entry.deliveredVia);
        if (entry.coldExt) coldExt = json::encode(*entry.coldExt);
    } catch (const json::EncodingError& error) {
        upsert.fail(error.what());
    }
    upsert.bind(1, entry.envelopeID)
        .bind(2, entry.threadID)
        .bind(3, secondsSince1970(entry.createdAt))
        .bind(4, secondsSince1970(entry.archivedAt))
        .bind(5, entry.origin)
        .bind(6, entry.title)
        .bind(7, entry.subtitle)
        .bind(8, entry.body)
        .bind(9, entry.sourceID)
        .bind(10, entry.sourceName)
        .bind(11, entry.sourceLine)
        .bind(12, entry.providerID)
        .bind(13, entry.providerDisplayName)
        .bind(14, entry.groupID)
        .bind(15, entry.iconHint)
        .bind(16, entry.category)
        .bind(17, entry.level)
        .bind(18, std::int64_t(entry.isArchive ? 1 : 0))
        .bind(19, entry.pairingToken)
        .bind(20, entry.mailboxRecordName)
        .bind(21, deliveredVia)
        .bind(22, entry.coldExt ? std::optional(coldExt) : std::nullopt);
}

// Deletes `ids` in batches of kIDsPerDelete, one placeholder per id. The caller holds a
// transaction. These statements are not cached: their text depends on the batch size.
std::int64_t deleteIDs(sqlite::Connection& connection, const std::vector<std::string>& ids) {
    std::int64_t removed = 0;
    for (std::size_t start = 0; start < ids.size(); start += kIDsPerDelete) {
        const std::size_t n = std::min(kIDsPerDelete, ids.size() - start);
        std::string sql = kDeleteInPrefix;
        for (std::size_t i = 0; i < n; ++i) sql += i ? ", ?" : "?";
        sql += ")";
        sqlite::Statement remove{connection, sql.c_str(), "prepare deleteMessages(envelopeIDs:)",
                                 "execute deleteMessages(envelopeIDs:)"};
        for (std::size_t i = 0; i < n; ++i) remove.bind(int(i + 1), ids[start + i]);
        remove.run();
        removed += connection.changes();
    }
    return removed;
}

std::int64_t dataVersion(sqlite::Connection& connection) {
    sqlite::CachedStatement version{connection, kDataVersion.c_str(), "data_version"};
    return version.step() ? version.integer(0) : 0;
}

}  // namespace

// ---- cursor ----

std::string NotifyInboxCursor::toString() const {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, secondsSince1970(createdAt));
    return std::string(buffer, result.ptr) + "," + envelopeID;
}

std::optional<NotifyInboxCursor> NotifyInboxCursor::parse(std::string_view text) {
    const auto comma = text.find(',');
    if (comma == std::string_view::npos || comma == 0) return std::nullopt;
    double seconds = 0;
    const auto result = std::from_chars(text.data(), text.data() + comma, seconds);
    if (result.ec != std::errc{} || result.ptr != text.data() + comma || !std::isfinite(seconds)) return std::nullopt;
    return NotifyInboxCursor{dateFromSeconds(seconds), std::string(text.substr(comma + 1))};
}

// ---- store ----

QuotaNotifyInboxStore::QuotaNotifyInboxStore(QuotaSyncConfiguration configuration)
    : SQLiteStore(std::move(configuration), std::nullopt, defaultFilename, Connections::writerAndReader) {
    if (file_) cache_ = sharedPageCache(*file_);
}

std::string QuotaNotifyInboxStore::crossProcessChangeName() const {
    return NotifyInboxChangeSignal::changeName(configuration_.appGroupIdentifier);
}

std::filesystem::path QuotaNotifyInboxStore::changeSignalURL() const {
    return databaseURL().parent_path() / crossProcessChangeName();
}

void QuotaNotifyInboxStore::ensureOpen() const {
    run(inboxSetup(), [](sqlite::Connection&) {});
    runReading(inboxSetup(), [](sqlite::Connection&) {});
}

// Runs a write on the write side; `operation` returns how many rows it changed. Clears the page
// cache and, when rows changed, posts the change after the write side is released, so that an
// observer may use the store.
template <class Operation>
std::int64_t QuotaNotifyInboxStore::write(Operation&& operation) const {
    databaseURL();
    std::int64_t changed = 0;
    {
        // Cleared on failure too: it costs one re-read, and nothing has to decide which
        // failures left rows changed.
        struct Invalidate {
            NotifyInboxPageCache& cache;
            ~Invalidate() { cache.invalidate(); }
        } invalidate{*cache_};
        changed = run(inboxSetup(), operation);
    }
    if (changed > 0) postChange();
    return changed;
}

template <class Result, class Operation>
Result QuotaNotifyInboxStore::read(Operation&& operation) const noexcept {
    return readOr(inboxSetup(), operation, Result{});
}

void QuotaNotifyInboxStore::postChange() const {
    ++postedChanges;
    NotifyInboxChangeSignal{changeSignalURL()}.post();
    NotificationCenter::shared().post(quotaNotifyInboxDidChange);
}

std::uint64_t QuotaNotifyInboxStore::notifyEventCount() const noexcept { return postedChanges.load(); }

QuotaNotifyInbox QuotaNotifyInboxStore::load() const noexcept {
    QuotaNotifyInbox inbox;
    inbox.version = schemaVersion;
    inbox.entries = loadAllEntries();
    return inbox;
}

std::vector<QuotaNotifyArchiveEntry> QuotaNotifyInboxStore::loadPage(std::int64_t offset, std::int64_t limit) const noexcept {
    using Entries = std::vector<QuotaNotifyArchiveEntry>;
    return read<Entries>([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kPageByOffset.c_str(), "loadPage(offset:limit:)"};
        select.bind(1, limit).bind(2, offset);
        return readEntries(select);
    });
}

std::vector<QuotaNotifyArchiveEntry> QuotaNotifyInboxStore::loadPage(const std::optional<NotifyInboxCursor>& before,
                                                                     std::int64_t limit) const noexcept {
    using Entries = std::vector<QuotaNotifyArchiveEntry>;
    return read<Entries>([&](sqlite::Connection& connection) {
        if (before) {
            sqlite::CachedStatement select{connection, kPageBefore.c_str(), "loadPage(before:limit:)"};
            const double createdAt = secondsSince1970(before->createdAt);
            select.bind(1, createdAt).bind(2, createdAt).bind(3, before->envelopeID).bind(4, limit);
            return readEntries(select);
        }
        // The version is read before the page: a commit landing in between leaves the page newer
        // than its stamp, which only costs a needless refill.
        const std::int64_t version = dataVersion(connection);
        if (auto cached = cache_->page(limit, version)) return std::move(*cached);
        sqlite::CachedStatement select{connection, kFirstPage.c_str(), "loadPage(before:limit:)"};
        select.bind(1, limit);
        Entries entries = readEntries(select);
        if (limit >= 0 && limit <= maxCachedPageSize) cache_->storePage(entries, limit, version);
        return entries;
    });
}

std::vector<QuotaNotifyArchiveEntry> QuotaNotifyInboxStore::loadAllEntries() const noexcept {
    using Entries = std::vector<QuotaNotifyArchiveEntry>;
    return read<Entries>([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kAllEntries.c_str(), "loadAllEntries"};
        return readEntries(select);
    });
}

std::int64_t QuotaNotifyInboxStore::totalCount() const noexcept {
    return read<std::int64_t>([&](sqlite::Connection& connection) {
        const std::int64_t version = dataVersion(connection);
        if (const auto cached = cache_->count(version)) return *cached;
        sqlite::CachedStatement count{connection, kCount.c_str(), "totalCount"};
        const std::int64_t total = count.step() ? count.integer(0) : 0;
        cache_->storeCount(total, version);
        return total;
    });
}

bool QuotaNotifyInboxStore::contains(std::string_view envelopeID) const noexcept {
    return read<bool>([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kContains.c_str(), "contains(envelopeID:)"};
        select.bind(1, envelopeID);
        return select.step();
    });
}

std::unordered_set<std::string> QuotaNotifyInboxStore::knownEnvelopeIDs() const noexcept {
    using IDs = std::unordered_set<std::string>;
    return read<IDs>([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kKnownIDs.c_str(), "knownEnvelopeIDs"};
        IDs ids;
        while (select.step()) ids.insert(requiredText(select, 0));
        return ids;
    });
}

std::vector<std::string> QuotaNotifyInboxStore::envelopeIDs(std::string_view threadID,
                                                            NotifyInboxThreadGrouping grouping) const noexcept {
    return read<std::vector<std::string>>([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, idsOfThreadSQL(grouping), "envelopeIDs(threadID:grouping:)"};
        select.bind(1, threadID);
        return readIDs(select);
    });
}

std::vector<std::string> QuotaNotifyInboxStore::envelopeIDsMatchingCategory(std::string_view category) const noexcept {
    return read<std::vector<std::string>>([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kIDsByCategory.c_str(), "envelopeIDs(matchingCategory:)"};
        select.bind(1, category);
        return readIDs(select);
    });
}

void QuotaNotifyInboxStore::upsert(const QuotaNotifyArchiveEntry& entry) const {
    write([&](sqlite::Connection& connection) {
        sqlite::CachedStatement upsert{connection, kUpsert.c_str(), "upsert"};
        bindEntry(upsert, entry);
        upsert.run();
        return std::int64_t{1};
    });
}

void QuotaNotifyInboxStore::upsert(const std::vector<QuotaNotifyArchiveEntry>& entries) const {
    if (entries.empty()) return;
    write([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "upsert"};
        sqlite::CachedStatement upsert{connection, kUpsert.c_str(), "upsert"};
        for (const auto& entry : entries) {
            upsert.reset();
            bindEntry(upsert, entry);
            upsert.run();
        }
        transaction.commit();
        return std::int64_t(entries.size());
    });
}

void QuotaNotifyInboxStore::deleteMessage(std::string_view envelopeID) const {
    write([&](sqlite::Connection& connection) {
        sqlite::CachedStatement remove{connection, kDeleteOne.c_str(), "deleteMessage"};
        remove.bind(1, envelopeID).run();
        return connection.changes();
    });
}

std::int64_t QuotaNotifyInboxStore::deleteMessages(const std::vector<std::string>& envelopeIDs) const {
    if (envelopeIDs.empty()) return 0;  // "IN ()" is not SQL; nothing to do
    return write([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "deleteMessages(envelopeIDs:)"};
        const std::int64_t removed = deleteIDs(connection, envelopeIDs);
        transaction.commit();
        return removed;
    });
}

std::int64_t QuotaNotifyInboxStore::deleteMessagesMatchingCategory(std::string_view category) const {
    return write([&](sqlite::Connection& connection) {
        sqlite::CachedStatement remove{connection, kDeleteCategory.c_str(), "deleteMessages(category:)"};
        remove.bind(1, category).run();
        return connection.changes();
    });
}

std::int64_t QuotaNotifyInboxStore::deleteThread(std::string_view threadID, NotifyInboxThreadGrouping grouping) const {
    return write([&](sqlite::Connection& connection) {
        // The id list is read on the write side inside the transaction, so it is exactly the
        // thread as it stands when the delete runs.
        sqlite::Transaction transaction{connection, "deleteThread"};
        std::vector<std::string> ids;
        {
            sqlite::CachedStatement select{connection, idsOfThreadSQL(grouping), "envelopeIDs(threadID:grouping:)"};
            select.bind(1, threadID);
            ids = readIDs(select);
        }
        const std::int64_t removed = deleteIDs(connection, ids);
        transaction.commit();
        return removed;
    });
}

std::int64_t QuotaNotifyInboxStore::clear() const {
    return write([&](sqlite::Connection& connection) {
        // RETURNING counts exactly the rows this statement deleted. A SQLite without it (before
        // 3.35) cannot prepare it; the plain DELETE and the change count do the same there.
        try {
            sqlite::CachedStatement clear{connection, kClearReturning.c_str(), "clear"};
            std::int64_t removed = 0;
            while (clear.step()) ++removed;
            return removed;
        } catch (const sqlite::Failure&) {
        }
        sqlite::CachedStatement fallback{connection, kClearFallback.c_str(), "clear fallback"};
        fallback.run();
        return connection.changes();
    });
}

std::int64_t QuotaNotifyInboxStore::trimOldEntries(double olderThanSeconds) const {
    return trimming(Trim::failsTheCall, [&] {
        return write([&](sqlite::Connection& connection) {
            sqlite::Transaction transaction{connection, "trimOldEntries"};
            // "Now" is read with the write side held, so a trim that waited for it cuts at the time it runs.
            const Date cutoff = configuration_.clock.now() - std::chrono::duration<double>(olderThanSeconds);
            const std::int64_t removed = sqlite::trimRows(connection, kTrim.c_str(), secondsSince1970(cutoff), "trimOldEntries");
            transaction.commit();
            return removed;
        });
    });
}

void QuotaNotifyInboxStore::walCheckpoint() const noexcept {
    try {
        run(inboxSetup(), [](sqlite::Connection& connection) { connection.checkpointQuietly(SQLiteConnectionHolder::busyTimeout()); });
    } catch (...) {
    }
}

}  // namespace gaugepoint
