#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <set>
#include <unordered_map>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

namespace gaugepoint {
namespace {

// Secondary indexes that a first import into empty tables builds once at its end (sorting the
// rows) instead of keeping them up to date row by row. Opening the file makes any that is
// missing (an import stopped before its end), unless a writer holds the file: an import still
// running makes them itself, and a reader opening meanwhile must not wait for it.
// Reports group counted entries by time (in any zone), by model and by session.
#define GP_INDEX_UE_TIME "CREATE INDEX IF NOT EXISTS idx_ue_time ON usage_entries(timestamp) WHERE counted = 1;\n"
#define GP_INDEX_UE_FILE "CREATE INDEX IF NOT EXISTS idx_ue_file ON usage_entries(file_key);\n"
#define GP_INDEX_UE_SESSION \
    "CREATE INDEX IF NOT EXISTS idx_ue_session ON usage_entries(provider_id, session_id) WHERE counted = 1;\n"
#define GP_INDEX_IM_SESSION "CREATE INDEX IF NOT EXISTS idx_im_session ON import_messages(provider_id, session_id);\n"
constexpr const char* kDeferredIndexes = GP_INDEX_UE_TIME GP_INDEX_UE_FILE GP_INDEX_UE_SESSION GP_INDEX_IM_SESSION;
constexpr const char* kDropDeferredIndexes =
    "DROP INDEX IF EXISTS idx_ue_time;\nDROP INDEX IF EXISTS idx_ue_file;\nDROP INDEX IF EXISTS idx_ue_session;\n"
    "DROP INDEX IF EXISTS idx_im_session;";
// The time index is missing while a first import runs (it is built at its end): a reader
// meanwhile neither names it to the planner (the statement would fail) nor joins through it.
constexpr const char* kTimeIndexPresent = "SELECT 1 FROM sqlite_master WHERE type = 'index' AND name = 'idx_ue_time'";

bool hasTimeIndex(sqlite::Connection& connection) {
    sqlite::CachedStatement present{connection, kTimeIndexPresent, "prepare usage indexes", "execute usage indexes"};
    return present.step();
}

// Columns that came after the first stores, in the entries and in their quarter sums alike: the
// one-hour part of the cache writes, and what the tool charged in its own units. Older stores
// get them with ensureSchema(), in this order.
constexpr std::pair<const char*, const char*> kExtraColumns[] = {
    {"cache_write_1h_tokens", "INTEGER NOT NULL DEFAULT 0"},
    {"charge_premium_requests", "REAL NOT NULL DEFAULT 0"},
    {"charge_aiu", "REAL NOT NULL DEFAULT 0"},
    {"charge_credits", "REAL NOT NULL DEFAULT 0"},
};
#define GP_EXTRA_COLUMNS                                   \
    "    cache_write_1h_tokens INTEGER NOT NULL DEFAULT 0,\n" \
    "    charge_premium_requests REAL NOT NULL DEFAULT 0,\n"  \
    "    charge_aiu REAL NOT NULL DEFAULT 0,\n"               \
    "    charge_credits REAL NOT NULL DEFAULT 0,\n"
#define GP_EXTRA_NAMES "cache_write_1h_tokens, charge_premium_requests, charge_aiu, charge_credits"
#define GP_EXTRA_SUMS(row) \
    "SUM(" row "cache_write_1h_tokens), SUM(" row "charge_premium_requests), SUM(" row "charge_aiu), SUM(" row "charge_credits)"

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS import_files (\n"
    "    file_key INTEGER PRIMARY KEY,\n"
    "    path TEXT NOT NULL,\n"
    "    source_id TEXT NOT NULL,\n"
    "    provider_id TEXT NOT NULL,\n"
    "    capture_mode TEXT NOT NULL,\n"
    "    parser_state TEXT NOT NULL DEFAULT '',\n"
    "    prefix_digest INTEGER,\n"
    "    UNIQUE (path, source_id, provider_id, capture_mode)\n"
    ");\n"
    "CREATE TABLE IF NOT EXISTS usage_entries (\n"
    "    id INTEGER PRIMARY KEY,\n"
    "    file_key INTEGER NOT NULL,\n"
    "    provider_id TEXT NOT NULL,\n"
    "    session_id TEXT NOT NULL,\n"
    "    dedup_key TEXT NOT NULL,\n"
    "    timestamp REAL NOT NULL,\n"
    "    model TEXT NOT NULL,\n"
    "    input_tokens INTEGER NOT NULL,\n"
    "    output_tokens INTEGER NOT NULL,\n"
    "    cache_read_tokens INTEGER NOT NULL,\n"
    "    cache_write_tokens INTEGER NOT NULL,\n"
    "    cost_usd REAL,\n"
    "    counted INTEGER NOT NULL,\n"
    GP_EXTRA_COLUMNS
    "    UNIQUE (provider_id, dedup_key, file_key)\n"
    ");\n"
    "CREATE TABLE IF NOT EXISTS import_messages (\n"
    "    id INTEGER PRIMARY KEY,\n"
    "    file_key INTEGER NOT NULL,\n"
    "    provider_id TEXT NOT NULL,\n"
    "    session_id TEXT NOT NULL,\n"
    "    message_key TEXT NOT NULL,\n"
    "    timestamp REAL,\n"
    "    role TEXT NOT NULL,\n"
    "    model TEXT,\n"
    "    input_tokens INTEGER,\n"
    "    output_tokens INTEGER,\n"
    "    cache_read_tokens INTEGER,\n"
    "    cache_write_tokens INTEGER,\n"
    "    is_prompt INTEGER NOT NULL DEFAULT 0,\n"
    "    text TEXT,\n"
    "    UNIQUE (file_key, message_key)\n"
    ");\n"
    "CREATE TABLE IF NOT EXISTS import_sessions (\n"
    "    provider_id TEXT NOT NULL,\n"
    "    session_id TEXT NOT NULL,\n"
    "    project_path TEXT,\n"
    "    title TEXT,\n"
    "    PRIMARY KEY (provider_id, session_id)\n"
    ") WITHOUT ROWID;\n"
    "CREATE TABLE IF NOT EXISTS import_dirty_sessions (\n"
    "    provider_id TEXT NOT NULL,\n"
    "    session_id TEXT NOT NULL,\n"
    "    PRIMARY KEY (provider_id, session_id)\n"
    ") WITHOUT ROWID;\n"
    "CREATE TABLE IF NOT EXISTS import_rate_limits (\n"
    "    provider_id TEXT PRIMARY KEY,\n"
    "    observed_at REAL NOT NULL,\n"
    "    limits_json TEXT NOT NULL\n"
    ");";

// Counted usage summed per quarter hour (seconds since 1970 / 900, floored), provider, model and
// whether the log reported a cost. Triggers note the quarters whose counted rows change;
// refreshUsageQuarters() sums those again. Until then readers sum a noted quarter from the rows.
#define GP_QUARTER(row) \
    "(CAST(" row "timestamp / 900 AS INTEGER) - (CAST(" row "timestamp / 900 AS INTEGER) * 900 > " row "timestamp))"
constexpr const char* kQuarterSchema =
    "CREATE TABLE IF NOT EXISTS usage_dirty_quarters (quarter INTEGER PRIMARY KEY);\n"
    "CREATE TABLE IF NOT EXISTS usage_quarters (\n"
    "    quarter INTEGER NOT NULL,\n"
    "    provider_id TEXT NOT NULL,\n"
    "    model TEXT NOT NULL,\n"
    "    reported INTEGER NOT NULL,\n"
    "    entries INTEGER NOT NULL,\n"
    "    input_tokens INTEGER NOT NULL,\n"
    "    output_tokens INTEGER NOT NULL,\n"
    "    cache_read_tokens INTEGER NOT NULL,\n"
    "    cache_write_tokens INTEGER NOT NULL,\n"
    "    cost_usd REAL,\n"
    GP_EXTRA_COLUMNS
    "    PRIMARY KEY (quarter, provider_id, model, reported)\n"
    ") WITHOUT ROWID;";
constexpr const char* kQuarterTriggers =
    "CREATE TRIGGER IF NOT EXISTS usage_entries_counted_insert AFTER INSERT ON usage_entries\n"
    "WHEN NEW.counted = 1 BEGIN\n"
    "    INSERT OR IGNORE INTO usage_dirty_quarters (quarter) VALUES (" GP_QUARTER("NEW.") ");\n"
    "END;\n"
    "CREATE TRIGGER IF NOT EXISTS usage_entries_counted_update AFTER UPDATE ON usage_entries\n"
    "WHEN OLD.counted = 1 OR NEW.counted = 1 BEGIN\n"
    "    INSERT OR IGNORE INTO usage_dirty_quarters (quarter) VALUES (" GP_QUARTER("OLD.") ");\n"
    "    INSERT OR IGNORE INTO usage_dirty_quarters (quarter) VALUES (" GP_QUARTER("NEW.") ");\n"
    "END;\n"
    "CREATE TRIGGER IF NOT EXISTS usage_entries_counted_delete AFTER DELETE ON usage_entries\n"
    "WHEN OLD.counted = 1 BEGIN\n"
    "    INSERT OR IGNORE INTO usage_dirty_quarters (quarter) VALUES (" GP_QUARTER("OLD.") ");\n"
    "END;";
constexpr const char* kDropQuarterTriggers =
    "DROP TRIGGER IF EXISTS usage_entries_counted_insert;\n"
    "DROP TRIGGER IF EXISTS usage_entries_counted_update;\n"
    "DROP TRIGGER IF EXISTS usage_entries_counted_delete;";
// Rows written before the quarter sums existed, or while the triggers were off.
constexpr const char* kNoteAllQuarters =
    "INSERT OR IGNORE INTO usage_dirty_quarters (quarter)\n"
    "SELECT DISTINCT " GP_QUARTER("") " FROM usage_entries WHERE counted = 1";
#undef GP_EXTRA_COLUMNS

// The sums of the noted quarters, from the rows, grouped. Through the time index, one quarter at
// a time (left to itself the planner indexes the counted flag and reads every row for every
// quarter); without it, in one pass over the table, as the sums of every quarter are made after
// a first import (a join would read the whole table once per quarter).
constexpr const char* kNotedQuarterSumsIndexed =
    "SELECT d.quarter, u.provider_id, u.model, IFNULL(u.cost_usd, 0) > 0 AS reported, COUNT(*),\n"
    "       SUM(u.input_tokens), SUM(u.output_tokens), SUM(u.cache_read_tokens), SUM(u.cache_write_tokens),\n"
    "       SUM(u.cost_usd), " GP_EXTRA_SUMS("u.") "\n"
    "FROM usage_dirty_quarters d\n"
    "JOIN usage_entries u INDEXED BY idx_ue_time\n"
    "    ON u.counted = 1 AND u.timestamp >= d.quarter * 900 AND u.timestamp < d.quarter * 900 + 900\n"
    "GROUP BY d.quarter, u.provider_id, u.model, reported";
#define GP_SCANNED_SUMS(where)                                                                                     \
    "SELECT " GP_QUARTER("") " AS quarter, provider_id, model, IFNULL(cost_usd, 0) > 0 AS reported, COUNT(*),\n" \
    "       SUM(input_tokens), SUM(output_tokens), SUM(cache_read_tokens), SUM(cache_write_tokens),\n"           \
    "       SUM(cost_usd), " GP_EXTRA_SUMS("") "\n"                                                               \
    "FROM usage_entries NOT INDEXED WHERE counted = 1" where "\n"                                                 \
    "GROUP BY quarter, provider_id, model, reported"
constexpr const char* kNotedQuarterSumsScanned =
    GP_SCANNED_SUMS(" AND " GP_QUARTER("") " IN (SELECT quarter FROM usage_dirty_quarters)");
constexpr const char* kEveryQuarterSums = GP_SCANNED_SUMS("");
#undef GP_SCANNED_SUMS
#undef GP_QUARTER
// Columns by name: an older store has its later columns in the order they were added.
constexpr const char* kInsertQuarterSums =
    "INSERT INTO usage_quarters (quarter, provider_id, model, reported, entries, input_tokens, output_tokens,\n"
    "    cache_read_tokens, cache_write_tokens, cost_usd, " GP_EXTRA_NAMES ")\n";
constexpr const char* kRefreshQuarters =
    "DELETE FROM usage_quarters WHERE quarter IN (SELECT quarter FROM usage_dirty_quarters)";
constexpr const char* kStoredQuarterSums =
    "SELECT quarter, provider_id, model, reported, entries, input_tokens, output_tokens, cache_read_tokens,\n"
    "       cache_write_tokens, cost_usd, " GP_EXTRA_NAMES "\n"
    "FROM usage_quarters WHERE quarter NOT IN (SELECT quarter FROM usage_dirty_quarters)";

// Stores sums made in memory, in the table's key order.
void insertQuarterSums(sqlite::Connection& connection, const UsageQuarterSums& quarters) {
    const std::string sql = std::string(kInsertQuarterSums) + "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    sqlite::Statement insert{connection, sql.c_str(), "prepare usage quarters", "refresh usage quarters"};
    for (const auto& sum : quarters.sorted()) {
        insert.bind(1, sum.quarter).bind(2, sum.providerID).bind(3, sum.model).bind(4, std::int64_t(sum.reported));
        insert.bind(5, sum.entries).bind(6, sum.inputTokens).bind(7, sum.outputTokens);
        insert.bind(8, sum.cacheReadTokens).bind(9, sum.cacheWriteTokens);
        if (sum.costUSD) {
            insert.bind(10, *sum.costUSD);
        } else {
            insert.bindNull(10);
        }
        insert.bind(11, sum.cacheWrite1hTokens).bind(12, sum.charges.premiumRequests);
        insert.bind(13, sum.charges.aiu).bind(14, sum.charges.credits);
        insert.run();
        insert.reset();
    }
}

const char* notedQuarterSums(sqlite::Connection& connection) {
    return hasTimeIndex(connection) ? kNotedQuarterSumsIndexed : kNotedQuarterSumsScanned;
}

constexpr const char* kFindFile =
    "SELECT file_key FROM import_files WHERE path = ? AND source_id = ? AND provider_id = ? AND capture_mode = ?";
constexpr const char* kAddFile =
    "INSERT INTO import_files (path, source_id, provider_id, capture_mode) VALUES (?, ?, ?, ?)";
constexpr const char* kAddFileWithState =
    "INSERT INTO import_files (path, source_id, provider_id, capture_mode, parser_state, prefix_digest)\n"
    "VALUES (?, ?, ?, ?, ?, ?)\nON CONFLICT (path, source_id, provider_id, capture_mode) DO NOTHING";
constexpr const char* kParserState = "SELECT parser_state FROM import_files WHERE file_key = ?";
constexpr const char* kParserStateOfFile =
    "SELECT parser_state, prefix_digest FROM import_files\n"
    "WHERE path = ? AND source_id = ? AND provider_id = ? AND capture_mode = ?";
constexpr const char* kSetParserState = "UPDATE import_files SET parser_state = ? WHERE file_key = ?";
constexpr const char* kSetStateAndDigest = "UPDATE import_files SET parser_state = ?, prefix_digest = ? WHERE file_key = ?";

constexpr const char* kAnyEntry = "SELECT 1 FROM usage_entries LIMIT 1";
constexpr const char* kCountedRow =
    "SELECT id, file_key, output_tokens,\n"
    "       input_tokens + output_tokens + cache_read_tokens + cache_write_tokens\n"
    "FROM usage_entries WHERE provider_id = ? AND dedup_key = ? AND counted = 1";
constexpr const char* kOwnRow =
    "SELECT id, output_tokens FROM usage_entries WHERE provider_id = ? AND dedup_key = ? AND file_key = ?";
constexpr const char* kInsertEntry =
    "INSERT INTO usage_entries (\n    file_key,\n    provider_id,\n    dedup_key,\n    session_id,\n    timestamp,\n"
    "    model,\n    input_tokens,\n    output_tokens,\n    cache_read_tokens,\n    cache_write_tokens,\n"
    "    cost_usd,\n    " GP_EXTRA_NAMES ",\n    counted\n) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kUpdateEntry =
    "UPDATE usage_entries SET session_id = ?, timestamp = ?, model = ?, input_tokens = ?, output_tokens = ?,\n"
    "    cache_read_tokens = ?, cache_write_tokens = ?, cost_usd = ?, cache_write_1h_tokens = ?,\n"
    "    charge_premium_requests = ?, charge_aiu = ?, charge_credits = ? WHERE id = ?";
// The row of a response that is counted: most output tokens, then the earliest, then the first
// session by name, and only then the earliest recorded. Files are read on several threads, so
// the order copies are recorded in varies: it must not decide which session a copy counts for.
constexpr const char* kBestRow =
    "SELECT id, input_tokens + output_tokens + cache_read_tokens + cache_write_tokens\n"
    "FROM usage_entries WHERE provider_id = ? AND dedup_key = ?\n"
    "ORDER BY output_tokens DESC, timestamp ASC, session_id ASC, id ASC LIMIT 1";
constexpr const char* kSetCounted = "UPDATE usage_entries SET counted = ? WHERE id = ?";

constexpr const char* kFileEntries =
    "SELECT provider_id, dedup_key, session_id, counted,\n"
    "       input_tokens + output_tokens + cache_read_tokens + cache_write_tokens\n"
    "FROM usage_entries WHERE file_key = ?";
constexpr const char* kDeleteFileEntries = "DELETE FROM usage_entries WHERE file_key = ?";
constexpr const char* kFileMessageSessions = "SELECT DISTINCT provider_id, session_id FROM import_messages WHERE file_key = ?";
constexpr const char* kDeleteFileMessages = "DELETE FROM import_messages WHERE file_key = ?";
// The same for one group of a file's rows: ?1 the file, ?2 the provider, ?3 the group, ?4 the
// group and "/", ?5 the group and "0" (the character after "/"), so the keys that begin with
// ?4 are a range of the unique indexes.
#define GP_GROUP_KEYS(column) "(" column " = ?3 OR (" column " >= ?4 AND " column " < ?5))"
constexpr const char* kGroupEntries =
    "SELECT provider_id, dedup_key, session_id, counted,\n"
    "       input_tokens + output_tokens + cache_read_tokens + cache_write_tokens\n"
    "FROM usage_entries WHERE provider_id = ?2 AND file_key = ?1 AND " GP_GROUP_KEYS("dedup_key");
constexpr const char* kDeleteGroupEntries =
    "DELETE FROM usage_entries WHERE provider_id = ?2 AND file_key = ?1 AND " GP_GROUP_KEYS("dedup_key");
constexpr const char* kGroupMessageSessions =
    "SELECT DISTINCT provider_id, session_id FROM import_messages\n"
    "WHERE file_key = ?1 AND provider_id = ?2 AND " GP_GROUP_KEYS("message_key");
constexpr const char* kDeleteGroupMessages =
    "DELETE FROM import_messages WHERE file_key = ?1 AND provider_id = ?2 AND " GP_GROUP_KEYS("message_key");
#undef GP_GROUP_KEYS

// The lines of one response join: the most output tokens win, and texts follow each other.
constexpr const char* kUpsertMessage =
    "INSERT INTO import_messages (\n    file_key,\n    provider_id,\n    session_id,\n    message_key,\n"
    "    timestamp,\n    role,\n    model,\n    input_tokens,\n    output_tokens,\n    cache_read_tokens,\n"
    "    cache_write_tokens,\n    is_prompt,\n    text\n"
    ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)\n"
    "ON CONFLICT(file_key, message_key) DO UPDATE SET\n"
    "    model = COALESCE(excluded.model, model),\n"
    "    input_tokens = CASE WHEN COALESCE(excluded.output_tokens, -1) > COALESCE(output_tokens, -1)\n"
    "                        THEN excluded.input_tokens ELSE input_tokens END,\n"
    "    cache_read_tokens = CASE WHEN COALESCE(excluded.output_tokens, -1) > COALESCE(output_tokens, -1)\n"
    "                             THEN excluded.cache_read_tokens ELSE cache_read_tokens END,\n"
    "    cache_write_tokens = CASE WHEN COALESCE(excluded.output_tokens, -1) > COALESCE(output_tokens, -1)\n"
    "                              THEN excluded.cache_write_tokens ELSE cache_write_tokens END,\n"
    "    output_tokens = MAX(COALESCE(output_tokens, -1), COALESCE(excluded.output_tokens, -1)),\n"
    "    text = CASE WHEN excluded.text IS NULL THEN text WHEN text IS NULL THEN excluded.text\n"
    "                ELSE text || char(10) || excluded.text END";
constexpr const char* kUpsertSession =
    "INSERT INTO import_sessions (provider_id, session_id, project_path) VALUES (?, ?, ?)\n"
    "ON CONFLICT(provider_id, session_id) DO UPDATE SET\n"
    "    project_path = COALESCE(import_sessions.project_path, excluded.project_path)";
// A session's title as the tool keeps it: the latest read wins (a rename). Only a change marks
// the session behind.
constexpr const char* kSessionTitle = "SELECT title FROM import_sessions WHERE provider_id = ? AND session_id = ?";
constexpr const char* kSetSessionTitle =
    "INSERT INTO import_sessions (provider_id, session_id, title) VALUES (?, ?, ?)\n"
    "ON CONFLICT(provider_id, session_id) DO UPDATE SET title = excluded.title";
constexpr std::size_t kTitleColumns = 120;  // terminal columns a stored title may take
constexpr const char* kMarkDirty = "INSERT OR IGNORE INTO import_dirty_sessions (provider_id, session_id) VALUES (?, ?)";
// The mark of every session at once: a row no provider can have (their identifiers are never empty).
constexpr const char* kMarkAll = "INSERT OR IGNORE INTO import_dirty_sessions (provider_id, session_id) VALUES ('', '')";
constexpr const char* kAllMarked = "SELECT 1 FROM import_dirty_sessions WHERE provider_id = '' AND session_id = ''";

constexpr const char* kStoredLimits = "SELECT observed_at FROM import_rate_limits WHERE provider_id = ?";
constexpr const char* kSetLimits =
    "INSERT OR REPLACE INTO import_rate_limits (provider_id, observed_at, limits_json) VALUES (?, ?, ?)";

// A response's key (provider, dedup key) as one number, for sets of keys kept in memory.
std::uint64_t keyHash(std::string_view providerID, std::string_view dedupKey) {
    return std::hash<std::string_view>{}(dedupKey) * 0x9E3779B97F4A7C15ULL ^ std::hash<std::string_view>{}(providerID);
}

std::int64_t total(const QuotaSessionTokenUsage& t) {
    return t.inputTokens + t.outputTokens + t.cacheReadTokens + t.cacheWriteTokens;  // parsers bound each count
}

// The statements of one write, prepared once for all its rows.
struct EntryWriter {
    sqlite::StatementCache& statements;
    sqlite::Statement& counted = statements.get(kCountedRow, "prepare usage lookup", "execute usage lookup");
    sqlite::Statement& own = statements.get(kOwnRow, "prepare usage lookup", "execute usage lookup");
    sqlite::Statement& insert = statements.get(kInsertEntry, "prepare usage insert", "execute usage insert");
    sqlite::Statement& update = statements.get(kUpdateEntry, "prepare usage update", "execute usage update");
    sqlite::Statement& best = statements.get(kBestRow, "prepare usage recount", "execute usage recount");
    sqlite::Statement& setCounted = statements.get(kSetCounted, "prepare usage recount", "execute usage recount");

    void bindValues(sqlite::Statement& s, int first, const QuotaUsageEntry& e) {
        s.bind(first, e.sessionID).bind(first + 1, secondsSince1970(e.timestamp)).bind(first + 2, e.model);
        s.bind(first + 3, e.tokens.inputTokens).bind(first + 4, e.tokens.outputTokens);
        s.bind(first + 5, e.tokens.cacheReadTokens).bind(first + 6, e.tokens.cacheWriteTokens);
        if (e.tokens.exactCostUSD) {
            s.bind(first + 7, *e.tokens.exactCostUSD);
        } else {
            s.bindNull(first + 7);
        }
        s.bind(first + 8, e.cacheWrite1hTokens).bind(first + 9, e.charges.premiumRequests);
        s.bind(first + 10, e.charges.aiu).bind(first + 11, e.charges.credits);
    }

    void insertRow(std::int64_t fileKey, const QuotaUsageEntry& e, bool isCounted) {
        insert.reset();
        insert.bind(1, fileKey).bind(2, e.providerID).bind(3, e.dedupKey);
        bindValues(insert, 4, e);
        insert.bind(16, std::int64_t(isCounted ? 1 : 0)).run();
    }

    void setFlag(std::int64_t id, std::int64_t flag) {
        setCounted.reset();
        setCounted.bind(1, flag).bind(2, id).run();
    }

    // Makes the best row of the response the counted one; returns the change in counted tokens.
    std::int64_t recount(const QuotaUsageEntry& e, std::optional<std::pair<std::int64_t, std::int64_t>> was) {
        best.reset();
        best.bind(1, e.providerID).bind(2, e.dedupKey);
        if (!best.step()) return was ? -was->second : 0;
        const std::int64_t id = best.integer(0), tokens = best.integer(1);
        best.reset();
        if (was && was->first == id) return tokens - was->second;
        if (was) setFlag(was->first, 0);
        setFlag(id, 1);
        return tokens - (was ? was->second : 0);
    }

    QuotaUsageEntryStore::Tally write(std::int64_t fileKey, const QuotaUsageEntry& e,
                                      QuotaUsageEntryStore::KeysSinceEmpty* sinceEmpty) {
        std::optional<std::pair<std::int64_t, std::int64_t>> was;  // counted row: id, tokens
        if (!sinceEmpty || sinceEmpty->mayExist(e.providerID, e.dedupKey)) {
            counted.reset();
            counted.bind(1, e.providerID).bind(2, e.dedupKey);
            if (counted.step()) was = std::pair{counted.integer(0), counted.integer(3)};
            counted.reset();
        }
        if (!was) {  // the common case: a response seen for the first time
            insertRow(fileKey, e, true);
            return {total(e.tokens), 1};
        }
        own.reset();
        own.bind(1, e.providerID).bind(2, e.dedupKey).bind(3, fileKey);
        if (own.step()) {
            const std::int64_t id = own.integer(0), output = own.integer(1);
            own.reset();
            if (e.tokens.outputTokens <= output) return {};
            update.reset();
            bindValues(update, 1, e);
            update.bind(13, id).run();
        } else {
            own.reset();
            insertRow(fileKey, e, false);
        }
        return {recount(e, was), 0};
    }
};

// Merges what one read gave for the same key: the line with the most output tokens wins. Points
// into `usage`, in first-seen order (a streamed response repeats its key on every line).
std::vector<const QuotaUsageEntry*> mergedUsage(const std::vector<QuotaUsageEntry>& usage) {
    struct KeyHash {
        std::size_t operator()(const std::pair<std::string_view, std::string_view>& key) const noexcept {
            return keyHash(key.first, key.second);
        }
    };
    // A few entries (most reads of a small file) are compared with each other; more go through
    // an index.
    constexpr std::size_t kCompared = 16;
    const bool few = usage.size() <= kCompared;
    std::unordered_map<std::pair<std::string_view, std::string_view>, std::size_t, KeyHash> index;
    if (!few) index.reserve(usage.size());
    std::vector<const QuotaUsageEntry*> merged;
    merged.reserve(usage.size());
    for (const auto& e : usage) {
        std::size_t slot = merged.size();
        if (few) {
            const auto same = std::find_if(merged.begin(), merged.end(), [&](const QuotaUsageEntry* m) {
                return m->dedupKey == e.dedupKey && m->providerID == e.providerID;
            });
            slot = std::size_t(same - merged.begin());
        } else {
            slot = index.try_emplace({e.providerID, e.dedupKey}, merged.size()).first->second;
        }
        if (slot == merged.size()) {
            merged.push_back(&e);
        } else if (e.tokens.outputTokens > merged[slot]->tokens.outputTokens) {
            merged[slot] = &e;
        }
    }
    return merged;
}

void markDirty(sqlite::Statement& mark, std::string_view provider, std::string_view session) {
    mark.reset();
    mark.bind(1, provider).bind(2, session).run();
}

std::vector<QuotaUsageEntry> readEntries(sqlite::Statement& select) {
    std::vector<QuotaUsageEntry> entries;
    while (select.step()) {
        QuotaUsageEntry e;
        e.providerID = std::string(select.text(0).value_or(""));
        e.sessionID = std::string(select.text(1).value_or(""));
        e.dedupKey = std::string(select.text(2).value_or(""));
        e.timestamp = dateFromSeconds(select.real(3));
        e.model = std::string(select.text(4).value_or(""));
        e.tokens = {select.integer(5), select.integer(6), select.integer(7), select.integer(8), std::nullopt};
        if (!select.isNull(9)) e.tokens.exactCostUSD = select.real(9);
        e.cacheWrite1hTokens = select.integer(10);
        e.charges = {select.real(11), select.real(12), select.real(13)};
        entries.push_back(std::move(e));
    }
    return entries;
}


}  // namespace

namespace {

// Adds `column` (declared as `declaration`) to `table` of an older store; false when it was there.
// Another process opening the same store may add it between the look and the change: that is no
// failure.
bool addMissingColumn(sqlite::Connection& connection, const char* table, const std::string& column,
                      const std::string& declaration) {
    const auto has = [&] {
        return sqlite::tableColumns(connection, table, "inspect " + std::string(table)).contains(column);
    };
    if (has()) return false;
    try {
        const std::string alter = "ALTER TABLE " + std::string(table) + " ADD COLUMN " + column + " " + declaration;
        connection.exec(alter.c_str(), "add column " + column);
    } catch (const sqlite::Failure&) {
        if (!has()) throw;
        return false;
    }
    return true;
}

}  // namespace

void QuotaUsageEntryStore::ensureSchema(sqlite::Connection& connection) {
    connection.exec(kSchema, "ensure import tables");
    // Files read before the prefix digest was kept have none: they are read on as before, and
    // get one with their next read. Sessions imported before titles were kept have none until
    // their tool's log is read again.
    addMissingColumn(connection, "import_files", "prefix_digest", "INTEGER");
    addMissingColumn(connection, "import_sessions", "title", "TEXT");
    // Entries recorded before a column was kept have 0 in it; their files are read again (the
    // parsers' versions changed), which fills them in.
    for (const auto& [column, declaration] : kExtraColumns) addMissingColumn(connection, "usage_entries", column, declaration);
    // Indexes that are there need no lock; missing ones are left to an import that holds the file.
    connection.execUnlessLocked(kDeferredIndexes, "ensure usage indexes", SQLiteConnectionHolder::busyTimeout());
    bool hadQuarters = false;
    {
        sqlite::Statement exists{connection, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'usage_quarters'",
                                 "prepare usage quarters", "execute usage quarters"};
        hadQuarters = exists.step();
    }
    connection.exec(kQuarterSchema, "ensure usage quarters");
    connection.exec(kQuarterTriggers, "ensure usage quarters");
    // Sums made before a column was summed are made again from the entries.
    bool sumsGrew = false;
    for (const auto& [column, declaration] : kExtraColumns) {
        sumsGrew = addMissingColumn(connection, "usage_quarters", column, declaration) || sumsGrew;
    }
    if (!hadQuarters || sumsGrew) connection.exec(kNoteAllQuarters, "ensure usage quarters");
}

void QuotaUsageEntryStore::beginBulkBatch(sqlite::Connection& connection) {
    connection.exec(kDropQuarterTriggers, "begin bulk import");
}

void QuotaUsageEntryStore::endBulkBatch(sqlite::Connection& connection) {
    connection.exec(kNoteAllQuarters, "end bulk import");
    connection.exec(kQuarterTriggers, "end bulk import");
}

void QuotaUsageEntryStore::deferIndexes(sqlite::Connection& connection) {
    connection.exec(kDropDeferredIndexes, "defer usage indexes");
}

void QuotaUsageEntryStore::buildDeferredIndexes() const {
    registry_.inTransaction("build usage indexes", [](sqlite::Connection& connection) {
        connection.exec(kDeferredIndexes, "build usage indexes");
        return true;
    });
}

bool QuotaUsageEntryStore::anyDirtyQuarter() const {
    bool dirty = false;
    registry_.withConnection([&](sqlite::Connection& connection) {
        sqlite::CachedStatement any{connection, "SELECT 1 FROM usage_dirty_quarters LIMIT 1", "prepare usage quarters",
                              "execute usage quarters"};
        dirty = any.step();
    });
    return dirty;
}

void QuotaUsageEntryStore::refreshUsageQuarters(Quarters which, const UsageQuarterSums* summed) const {
    if (!anyDirtyQuarter()) return;  // a scan that changed nothing writes nothing
    if (summed && !summed->exact()) summed = nullptr;
    registry_.inTransaction("refresh usage quarters", [which, summed](sqlite::Connection& connection) {
        if (which == Quarters::changed) {
            connection.exec(kRefreshQuarters, "refresh usage quarters");
            const std::string insert = std::string(kInsertQuarterSums) + notedQuarterSums(connection);
            connection.exec(insert.c_str(), "refresh usage quarters");
        } else if (!summed) {
            connection.exec("DELETE FROM usage_quarters", "refresh usage quarters");
            connection.exec((std::string(kInsertQuarterSums) + kEveryQuarterSums).c_str(), "refresh usage quarters");
        } else {
            connection.exec("DELETE FROM usage_quarters", "refresh usage quarters");
            insertQuarterSums(connection, *summed);
        }
        connection.exec("DELETE FROM usage_dirty_quarters", "refresh usage quarters");
        return true;
    });
}

std::int64_t QuotaUsageEntryStore::fileKey(sqlite::StatementCache& statements, const QuotaSessionFileRegistryEntry& entry) {
    const auto bindKey = [&](sqlite::Statement& s) {
        s.bind(1, entry.path).bind(2, entry.sourceID).bind(3, entry.providerID).bind(4, json::rawValue(entry.captureMode));
    };
    auto& find = statements.get(kFindFile, "prepare file key", "execute file key");
    bindKey(find);
    if (find.step()) {
        const std::int64_t key = find.integer(0);
        find.reset();
        return key;
    }
    auto& add = statements.get(kAddFile, "prepare file key", "execute file key");
    bindKey(add);
    add.run();
    return statements.connection().lastInsertRowID();
}

std::int64_t QuotaUsageEntryStore::fileKeyWithState(sqlite::StatementCache& statements,
                                                   const QuotaSessionFileRegistryEntry& entry, std::string_view state,
                                                   std::optional<std::int64_t> prefixDigest, bool likelyNew,
                                                   bool& created) {
    created = false;
    if (likelyNew) {
        auto& add = statements.get(kAddFileWithState, "prepare file key", "execute file key");
        add.bind(1, entry.path).bind(2, entry.sourceID).bind(3, entry.providerID).bind(4, json::rawValue(entry.captureMode));
        add.bind(5, state);
        prefixDigest ? add.bind(6, *prefixDigest) : add.bindNull(6);
        add.run();
        if (statements.connection().changes() == 1) {
            created = true;
            return statements.connection().lastInsertRowID();
        }
    }
    const std::int64_t key = fileKey(statements, entry);
    auto& update = statements.get(kSetStateAndDigest, "prepare parser state", "execute parser state");
    update.bind(1, state).bind(3, key);
    prefixDigest ? update.bind(2, *prefixDigest) : update.bindNull(2);
    update.run();
    return key;
}

bool QuotaUsageEntryStore::KeysSinceEmpty::mayExist(std::string_view providerID, std::string_view dedupKey) {
    return written_.seen(keyHash(providerID, dedupKey));
}

bool QuotaUsageEntryStore::hasNoEntries(sqlite::StatementCache& statements) {
    auto& any = statements.get(kAnyEntry, "prepare usage lookup", "execute usage lookup");
    const bool none = !any.step();
    any.reset();
    return none;
}

std::string QuotaUsageEntryStore::parserState(sqlite::StatementCache& statements, std::int64_t fileKey) {
    auto& select = statements.get(kParserState, "prepare parser state", "execute parser state");
    select.bind(1, fileKey);
    std::string state = select.step() ? std::string(select.text(0).value_or("")) : std::string();
    select.reset();
    return state;
}

QuotaUsageEntryStore::ReadOn QuotaUsageEntryStore::readOn(sqlite::StatementCache& statements,
                                                           const QuotaSessionFileRegistryEntry& entry) {
    auto& select = statements.get(kParserStateOfFile, "prepare parser state", "execute parser state");
    select.bind(1, entry.path).bind(2, entry.sourceID).bind(3, entry.providerID).bind(4, json::rawValue(entry.captureMode));
    ReadOn found;
    if (select.step()) {
        found.state = std::string(select.text(0).value_or(""));
        if (!select.isNull(1)) found.prefixDigest = select.integer(1);
    }
    select.reset();
    return found;
}

void QuotaUsageEntryStore::setParserState(sqlite::StatementCache& statements, std::int64_t fileKey, std::string_view state) {
    auto& update = statements.get(kSetParserState, "prepare parser state", "execute parser state");
    update.bind(1, state).bind(2, fileKey).run();
}

namespace {

// The statements that find and remove some of a file's records, and their parameters.
struct Forgetting {
    const char* entries;
    const char* deleteEntries;
    const char* messageSessions;
    const char* deleteMessages;
    std::function<void(sqlite::Statement&)> bind;
};

// Removes the records `what` selects; a response they counted is then counted from the best
// row left in other files, and the sessions they touched are marked behind.
QuotaUsageEntryStore::Tally forget(sqlite::StatementCache& statements, const Forgetting& what) {
    struct Gone {
        std::string provider, key, session;
        bool counted;
        std::int64_t tokens;
    };
    std::vector<Gone> gone;
    {
        auto& select = statements.get(what.entries, "prepare forget file", "execute forget file");
        what.bind(select);
        while (select.step()) {
            gone.push_back({std::string(select.text(0).value_or("")), std::string(select.text(1).value_or("")),
                            std::string(select.text(2).value_or("")), select.integer(3) != 0, select.integer(4)});
        }
    }
    std::set<std::pair<std::string, std::string>> sessions;
    {
        auto& select = statements.get(what.messageSessions, "prepare forget file", "execute forget file");
        what.bind(select);
        while (select.step()) sessions.emplace(select.text(0).value_or(""), select.text(1).value_or(""));
    }
    auto& deleteEntries = statements.get(what.deleteEntries, "prepare forget file", "execute forget file");
    what.bind(deleteEntries);
    deleteEntries.run();
    auto& deleteMessages = statements.get(what.deleteMessages, "prepare forget file", "execute forget file");
    what.bind(deleteMessages);
    deleteMessages.run();

    EntryWriter writer{statements};
    QuotaUsageEntryStore::Tally tally;
    for (const auto& g : gone) {
        sessions.emplace(g.provider, g.session);
        if (!g.counted) continue;
        QuotaUsageEntry key;
        key.providerID = g.provider;
        key.dedupKey = g.key;
        tally.countedTokens += writer.recount(key, std::pair{std::int64_t{-1}, g.tokens});
    }
    auto& mark = statements.get(kMarkDirty, "prepare mark session", "execute mark session");
    for (const auto& [provider, session] : sessions) markDirty(mark, provider, session);
    return tally;
}

}  // namespace

QuotaUsageEntryStore::Tally QuotaUsageEntryStore::forgetFile(sqlite::StatementCache& statements, std::int64_t fileKey) {
    return forget(statements, {kFileEntries, kDeleteFileEntries, kFileMessageSessions, kDeleteFileMessages,
                               [&](sqlite::Statement& s) { s.bind(1, fileKey); }});
}

QuotaUsageEntryStore::Tally QuotaUsageEntryStore::forgetRows(sqlite::StatementCache& statements, std::int64_t fileKey,
                                                             std::string_view providerID,
                                                             const std::vector<std::string>& groups) {
    Tally tally;
    for (const auto& group : groups) {
        const std::string below = group + "/", after = group + "0";
        const Tally t = forget(statements, {kGroupEntries, kDeleteGroupEntries, kGroupMessageSessions, kDeleteGroupMessages,
                                            [&](sqlite::Statement& s) {
                                                s.bind(1, fileKey).bind(2, providerID).bind(3, group);
                                                s.bind(4, below).bind(5, after);
                                            }});
        tally.countedTokens += t.countedTokens;
    }
    return tally;
}

QuotaUsageEntryStore::Tally QuotaUsageEntryStore::record(
    sqlite::StatementCache& statements, std::int64_t fileKey, const std::vector<QuotaUsageEntry>& usage,
    const std::vector<QuotaImportedMessage>& messages, std::string_view providerID,
    const std::vector<std::pair<std::string, std::string>>& sessionProjects, KeysSinceEmpty* sinceEmpty) {
    Tally tally;
    std::set<std::string_view> sessions;  // of `usage` and `messages`, which outlive it
    if (!usage.empty()) {
        EntryWriter writer{statements};
        for (const QuotaUsageEntry* e : mergedUsage(usage)) {
            const Tally t = writer.write(fileKey, *e, sinceEmpty);
            tally.countedTokens += t.countedTokens;
            tally.countedEntries += t.countedEntries;
            if (!sinceEmpty) sessions.insert(e->sessionID);
        }
    }
    if (!messages.empty()) {
        auto& upsert = statements.get(kUpsertMessage, "prepare message insert", "execute message insert");
        for (const auto& m : messages) {
            upsert.reset();
            upsert.bind(1, fileKey).bind(2, providerID).bind(3, m.sessionID).bind(4, m.messageKey);
            sqlite::bindDate(upsert, 5, m.timestamp);
            upsert.bind(6, json::rawValue(m.role)).bind(7, m.model);
            if (m.tokenUsage) {
                upsert.bind(8, m.tokenUsage->inputTokens).bind(9, m.tokenUsage->outputTokens);
                upsert.bind(10, m.tokenUsage->cacheReadTokens).bind(11, m.tokenUsage->cacheWriteTokens);
            } else {
                for (int i = 8; i <= 11; ++i) upsert.bindNull(i);
            }
            upsert.bind(12, std::int64_t(m.isPrompt ? 1 : 0)).bind(13, m.text).run();
            if (!sinceEmpty) sessions.insert(m.sessionID);
        }
    }
    if (!sessionProjects.empty()) {
        auto& upsert = statements.get(kUpsertSession, "prepare session insert", "execute session insert");
        for (const auto& [session, project] : sessionProjects) {
            upsert.reset();
            upsert.bind(1, providerID).bind(2, session);
            if (project.empty()) {
                upsert.bindNull(3);
            } else {
                upsert.bind(3, project);
            }
            upsert.run();
        }
    }
    // A first import has marked every session behind at once (markEverySessionBehind).
    if (sinceEmpty) return tally;
    auto& mark = statements.get(kMarkDirty, "prepare mark session", "execute mark session");
    for (const auto& session : sessions) markDirty(mark, providerID, session);
    return tally;
}

void QuotaUsageEntryStore::noteSessionTitles(sqlite::StatementCache& statements, std::string_view providerID,
                                             const std::vector<std::pair<std::string, std::string>>& titles) {
    auto& stored = statements.get(kSessionTitle, "prepare session title", "execute session title");
    auto& set = statements.get(kSetSessionTitle, "prepare session title", "execute session title");
    auto& mark = statements.get(kMarkDirty, "prepare mark session", "execute mark session");
    for (const auto& [session, raw] : titles) {
        const std::string title = truncatedToWidth(trimmed(singleLine(raw)), kTitleColumns);
        if (title.empty()) continue;
        stored.reset();
        stored.bind(1, providerID).bind(2, session);
        const bool same = stored.step() && stored.text(0) == std::optional<std::string_view>(title);
        stored.reset();
        if (same) continue;
        set.reset();
        set.bind(1, providerID).bind(2, session).bind(3, title).run();
        markDirty(mark, providerID, session);
    }
}

void QuotaUsageEntryStore::noteRateLimits(sqlite::StatementCache& statements, const QuotaObservedRateLimits& limits) {
    auto& stored = statements.get(kStoredLimits, "prepare rate limits", "execute rate limits");
    stored.bind(1, limits.providerID);
    const bool newer = !stored.step() || stored.real(0) < secondsSince1970(limits.observedAt);
    stored.reset();
    if (!newer) return;
    auto& set = statements.get(kSetLimits, "prepare rate limits", "execute rate limits");
    set.bind(1, limits.providerID).bind(2, secondsSince1970(limits.observedAt)).bind(3, json::encode(limits)).run();
}

// ---- reads ----

std::vector<QuotaUsageEntryStore::SessionKey> QuotaUsageEntryStore::dirtySessions() const {
    std::vector<SessionKey> sessions;
    registry_.withConnection([&](sqlite::Connection& connection) {
        sqlite::Statement select{connection, "SELECT provider_id, session_id FROM import_dirty_sessions WHERE provider_id <> ''",
                                 "prepare dirty sessions", "execute dirty sessions"};
        while (select.step()) sessions.push_back({std::string(select.text(0).value_or("")), std::string(select.text(1).value_or(""))});
    });
    return sessions;
}

void QuotaUsageEntryStore::markEverySessionBehind(sqlite::StatementCache& statements) {
    statements.get(kMarkAll, "prepare mark sessions behind", "execute mark sessions behind").run();
}

bool QuotaUsageEntryStore::everySessionBehind() const {
    bool marked = false;
    registry_.withConnection([&](sqlite::Connection& connection) {
        sqlite::Statement select{connection, kAllMarked, "prepare dirty sessions", "execute dirty sessions"};
        marked = select.step();
    });
    return marked;
}

void QuotaUsageEntryStore::markEachSessionBehind() const {
    registry_.inTransaction("mark sessions behind", [&](sqlite::Connection& connection) {
        connection.exec("INSERT OR IGNORE INTO import_dirty_sessions (provider_id, session_id)\n"
                        "SELECT provider_id, session_id FROM import_sessions\n"
                        "UNION SELECT provider_id, session_id FROM usage_entries\n"
                        "UNION SELECT provider_id, session_id FROM import_messages;\n"
                        "DELETE FROM import_dirty_sessions WHERE provider_id = '' AND session_id = ''",
                        "mark sessions behind");
    });
}

void QuotaUsageEntryStore::clearEveryMark() const {
    registry_.inTransaction("clear dirty sessions", [&](sqlite::Connection& connection) {
        connection.exec("DELETE FROM import_dirty_sessions", "clear dirty sessions");
    });
}

void QuotaUsageEntryStore::clearDirty(const std::vector<SessionKey>& sessions) const {
    registry_.inTransaction("clear dirty sessions", [&](sqlite::Connection& connection) {
        sqlite::Statement remove{connection, "DELETE FROM import_dirty_sessions WHERE provider_id = ? AND session_id = ?",
                                 "prepare clear dirty sessions", "execute clear dirty sessions"};
        for (const auto& s : sessions) {
            remove.reset();
            remove.bind(1, s.providerID).bind(2, s.sessionID).run();
        }
    });
}

namespace {

constexpr const char* kSessionUsage =
    "SELECT model, COUNT(*), SUM(input_tokens), SUM(output_tokens), SUM(cache_read_tokens),\n"
    "       SUM(cache_write_tokens), SUM(cost_usd), MIN(timestamp), MAX(timestamp)\n"
    "FROM usage_entries WHERE provider_id = ? AND session_id = ? AND counted = 1\nGROUP BY model";
// One row per message key: copies of a message in other files (or read under another capture
// mode) are left out, a copy that kept text winning over one that did not.
constexpr const char* kSessionMessages =
    "SELECT message_key, timestamp, role, model, input_tokens, output_tokens, cache_read_tokens,\n"
    "       cache_write_tokens, is_prompt, text FROM (\n"
    "    SELECT *, ROW_NUMBER() OVER (PARTITION BY message_key ORDER BY text IS NULL, id) AS copy\n"
    "    FROM import_messages WHERE provider_id = ? AND session_id = ?\n"
    ") WHERE copy = 1\nORDER BY timestamp IS NULL, timestamp, id";
constexpr const char* kSessionMessageSpan =
    "SELECT COUNT(DISTINCT CASE WHEN is_prompt = 1 THEN message_key END), MIN(timestamp), MAX(timestamp)\n"
    "FROM import_messages WHERE provider_id = ? AND session_id = ?";
constexpr const char* kSessionProject =
    "SELECT project_path, title FROM import_sessions WHERE provider_id = ? AND session_id = ?";
// The same three readings for every session at once, each in one pass over its table (no
// index by session is needed, so they can run before a first import has built one). The usage
// is summed here rather than by a GROUP BY, which would sort every row first.
// In the table's order: through the time index (which the planner takes for the flag) every row
// would be a lookup of its own, most of them pages already read and let go.
constexpr const char* kEveryCountedEntry =
    "SELECT provider_id, session_id, model, input_tokens, output_tokens, cache_read_tokens, cache_write_tokens,\n"
    "       cost_usd, timestamp, " GP_EXTRA_NAMES "\nFROM usage_entries NOT INDEXED WHERE counted = 1";
constexpr const char* kEverySessionMessageSpan =
    "SELECT provider_id, session_id, COUNT(DISTINCT CASE WHEN is_prompt = 1 THEN message_key END),\n"
    "       MIN(timestamp), MAX(timestamp)\nFROM import_messages GROUP BY provider_id, session_id";
constexpr const char* kEverySessionProject = "SELECT provider_id, session_id, project_path, title FROM import_sessions";

// Adds one row of kSessionUsage (model, COUNT, the four SUMs, SUM(cost), MIN and MAX time) to a
// session's usage.
void addModelRow(sqlite::Statement& select, QuotaUsageEntryStore::SessionUsage& usage) {
    QuotaSessionModelUsageSummary model;
    model.id = std::string(select.text(0).value_or(""));
    model.displayName = model.id;
    model.sessionCount = 1;
    model.messageCount = select.integer(1);
    model.tokenUsage = {select.integer(2), select.integer(3), select.integer(4), select.integer(5), std::nullopt};
    if (!select.isNull(6)) model.tokenUsage.exactCostUSD = select.real(6);
    usage.models.push_back(std::move(model));
    const Date earliest = dateFromSeconds(select.real(7)), latest = dateFromSeconds(select.real(8));
    if (!usage.first || earliest < *usage.first) usage.first = earliest;
    if (!usage.last || latest > *usage.last) usage.last = latest;
}

// Most tokens first; models of equal tokens keep their order by name.
void sortModels(QuotaUsageEntryStore::SessionUsage& usage) {
    std::stable_sort(usage.models.begin(), usage.models.end(), [](const auto& a, const auto& b) {
        return a.tokenUsage.totalTokens() > b.tokenUsage.totalTokens();
    });
}

QuotaUsageEntryStore::SessionUsage readSessionUsage(sqlite::StatementCache& statements,
                                                    const QuotaUsageEntryStore::SessionKey& session) {
    QuotaUsageEntryStore::SessionUsage result;
    auto& select = statements.get(kSessionUsage, "prepare session usage", "execute session usage");
    select.bind(1, session.providerID).bind(2, session.sessionID);
    while (select.step()) addModelRow(select, result);
    sortModels(result);
    return result;
}

std::vector<QuotaImportedMessage> readSessionMessages(sqlite::StatementCache& statements,
                                                      const QuotaUsageEntryStore::SessionKey& session) {
    std::vector<QuotaImportedMessage> messages;
    auto& select = statements.get(kSessionMessages, "prepare session messages", "execute session messages");
    select.bind(1, session.providerID).bind(2, session.sessionID);
    while (select.step()) {
        QuotaImportedMessage m;
        m.sessionID = session.sessionID;
        m.messageKey = std::string(select.text(0).value_or(""));
        m.timestamp = sqlite::optionalDate(select, 1);
        const std::string role{select.text(2).value_or("meta")};
        if (!boost::describe::enum_from_string(role.c_str(), m.role)) m.role = QuotaSessionRole::meta;
        m.model = sqlite::optionalText(select, 3);
        if (!select.isNull(5) && select.integer(5) >= 0) {
            m.tokenUsage = QuotaSessionTokenUsage{select.integer(4), select.integer(5), select.integer(6),
                                                  select.integer(7), std::nullopt};
        }
        m.isPrompt = select.integer(8) != 0;
        m.text = sqlite::optionalText(select, 9);
        messages.push_back(std::move(m));
    }
    return messages;
}

// A session's project and the title its tool keeps, into `content`.
void readSessionProject(sqlite::StatementCache& statements, const QuotaUsageEntryStore::SessionKey& session,
                        QuotaUsageEntryStore::SessionContent& content) {
    auto& select = statements.get(kSessionProject, "prepare session project", "execute session project");
    select.bind(1, session.providerID).bind(2, session.sessionID);
    if (select.step()) {
        content.projectPath = sqlite::optionalText(select, 0);
        content.title = sqlite::optionalText(select, 1);
    }
    select.reset();
}

}  // namespace

QuotaUsageEntryStore::SessionUsage QuotaUsageEntryStore::sessionUsage(const SessionKey& session) const {
    return sessionContents({session}).front().usage;
}

std::vector<QuotaImportedMessage> QuotaUsageEntryStore::sessionMessages(const SessionKey& session) const {
    return std::move(sessionContents({session}).front().messages);
}

std::optional<std::string> QuotaUsageEntryStore::sessionProjectPath(const SessionKey& session) const {
    return sessionContents({session}).front().projectPath;
}

std::vector<QuotaUsageEntryStore::SessionContent> QuotaUsageEntryStore::sessionContents(
    const std::vector<SessionKey>& sessions, bool withMessages) const {
    std::vector<SessionContent> contents;
    contents.reserve(sessions.size());
    registry_.withConnection([&](sqlite::Connection& connection) {
        const sqlite::ReadTransaction reads{connection};
        sqlite::StatementCache& statements = *connection.statementCache();  // the holder's: kept between calls
        for (const auto& session : sessions) {
            SessionContent& content = contents.emplace_back();
            content.usage = readSessionUsage(statements, session);
            readSessionProject(statements, session, content);
            if (withMessages) {
                content.messages = readSessionMessages(statements, session);
                for (const auto& m : content.messages) {
                    content.prompts += m.isPrompt ? 1 : 0;
                    if (!m.timestamp) continue;
                    if (!content.firstMessage || *m.timestamp < *content.firstMessage) content.firstMessage = m.timestamp;
                    if (!content.lastMessage || *m.timestamp > *content.lastMessage) content.lastMessage = m.timestamp;
                }
                continue;
            }
            auto& span = statements.get(kSessionMessageSpan, "prepare session messages", "execute session messages");
            span.bind(1, session.providerID).bind(2, session.sessionID);
            if (span.step()) {
                content.prompts = span.integer(0);
                content.firstMessage = sqlite::optionalDate(span, 1);
                content.lastMessage = sqlite::optionalDate(span, 2);
            }
            span.reset();
        }
    });
    return contents;
}

namespace {

// One row of kEveryCountedEntry, read once for the session's usage and the quarter sums.
UsageQuarterSums::Entry countedEntry(const sqlite::Statement& row) {
    return {row.text(0).value_or(""), row.text(2).value_or(""), row.real(8), row.integer(3), row.integer(4),
            row.integer(5), row.integer(6), row.integer(9), row.isNull(7) ? std::nullopt : std::optional(row.real(7)),
            {row.real(10), row.real(11), row.real(12)}};
}

// Adds one counted entry to its session's usage by model.
void addCountedEntry(const UsageQuarterSums::Entry& e, QuotaUsageEntryStore::SessionUsage& usage) {
    auto model = std::find_if(usage.models.begin(), usage.models.end(), [&](const auto& m) { return m.id == e.model; });
    if (model == usage.models.end()) {
        model = usage.models.insert(usage.models.end(), QuotaSessionModelUsageSummary{});
        model->id = std::string(e.model);
        model->displayName = model->id;
        model->sessionCount = 1;
    }
    ++model->messageCount;
    auto& t = model->tokenUsage;
    t.inputTokens += e.inputTokens;
    t.outputTokens += e.outputTokens;
    t.cacheReadTokens += e.cacheReadTokens;
    t.cacheWriteTokens += e.cacheWriteTokens;
    if (e.costUSD) t.exactCostUSD = t.exactCostUSD.value_or(0) + *e.costUSD;
    const Date at = dateFromSeconds(e.timestamp);
    if (!usage.first || at < *usage.first) usage.first = at;
    if (!usage.last || at > *usage.last) usage.last = at;
}

}  // namespace

std::map<QuotaUsageEntryStore::SessionKey, QuotaUsageEntryStore::SessionContent> QuotaUsageEntryStore::everySessionContent(
    UsageQuarterSums* quarters) const {
    std::map<SessionKey, SessionContent> contents;
    SessionContent* last = nullptr;  // rows of one session mostly follow each other
    SessionKey lastKey;
    const auto contentOf = [&](sqlite::Statement& select) -> SessionContent& {
        const std::string_view provider = select.text(0).value_or(""), session = select.text(1).value_or("");
        if (last && lastKey.providerID == provider && lastKey.sessionID == session) return *last;
        lastKey = {std::string(provider), std::string(session)};
        last = &contents[lastKey];
        return *last;
    };
    registry_.withReadConnection([&](sqlite::Connection& connection) {
        const sqlite::ReadTransaction reads{connection};
        sqlite::Statement usage{connection, kEveryCountedEntry, "prepare session usage", "execute session usage"};
        while (usage.step()) {
            const auto entry = countedEntry(usage);
            addCountedEntry(entry, contentOf(usage).usage);
            if (quarters) quarters->add(entry);
        }
        sqlite::Statement spans{connection, kEverySessionMessageSpan, "prepare session messages", "execute session messages"};
        while (spans.step()) {
            SessionContent& content = contentOf(spans);
            content.prompts = spans.integer(2);
            content.firstMessage = sqlite::optionalDate(spans, 3);
            content.lastMessage = sqlite::optionalDate(spans, 4);
        }
        sqlite::Statement projects{connection, kEverySessionProject, "prepare session project", "execute session project"};
        while (projects.step()) {
            SessionContent& content = contentOf(projects);
            content.projectPath = sqlite::optionalText(projects, 2);
            content.title = sqlite::optionalText(projects, 3);
        }
    });
    for (auto& [key, content] : contents) {
        // As the per-session reading orders them: by name, then most tokens first.
        std::sort(content.usage.models.begin(), content.usage.models.end(),
                  [](const auto& a, const auto& b) { return a.id < b.id; });
        sortModels(content.usage);
    }
    return contents;
}

namespace {

// " AND provider_id = :provider AND <time> >= :since AND <time> < :until", as far as given, and
// its binding: the one filter of every read of counted entries.
struct EntryFilter {
    const std::optional<std::string>& providerID;
    std::optional<double> since, until;  // seconds since 1970, or whole quarter hours for the sums

    std::string sql(std::string_view provider, std::string_view time) const {
        std::string text;
        if (providerID) text += " AND " + std::string(provider) + " = :provider";
        if (since) text += " AND " + std::string(time) + " >= :since";
        if (until) text += " AND " + std::string(time) + " < :until";
        return text;
    }
    void bind(sqlite::Statement& s) const {
        if (providerID) s.bind(s.parameterIndex(":provider"), *providerID);
        if (since) s.bind(s.parameterIndex(":since"), *since);
        if (until) s.bind(s.parameterIndex(":until"), *until);
    }
};

std::optional<double> seconds(std::optional<Date> date) {
    if (!date) return std::nullopt;
    return secondsSince1970(*date);
}

// The first quarter hour that starts at or after `date`.
std::optional<double> firstQuarterFrom(std::optional<Date> date) {
    if (!date) return std::nullopt;
    return std::ceil(std::clamp(secondsSince1970(*date), -1e15, 1e15) / 900);
}

}  // namespace

std::vector<QuotaUsageEntry> QuotaUsageEntryStore::countedEntries(const std::optional<std::string>& providerID,
                                                                  std::optional<Date> since, std::optional<Date> until) const {
    const EntryFilter filter{providerID, seconds(since), seconds(until)};
    std::string sql =
        "SELECT provider_id, session_id, dedup_key, timestamp, model, input_tokens, output_tokens, cache_read_tokens,\n"
        "       cache_write_tokens, cost_usd, " GP_EXTRA_NAMES "\nFROM usage_entries";
    // By time: left to itself the planner goes through the session index and reads every entry
    // of the provider, when the few of the last day were asked for.
    const std::string where = " WHERE counted = 1" + filter.sql("provider_id", "timestamp") + "\nORDER BY timestamp, id";
    std::vector<QuotaUsageEntry> entries;
    registry_.withConnection([&](sqlite::Connection& connection) {
        if ((since || until) && hasTimeIndex(connection)) sql += " INDEXED BY idx_ue_time";
        sql += where;
        sqlite::Statement select{connection, sql.c_str(), "prepare usage entries", "execute usage entries"};
        filter.bind(select);
        entries = readEntries(select);
    });
    return entries;
}

namespace {

// Columns `first`...`first` + 6 of a grouped row: reported (0/1), entries, the four sums, the sum
// of the reported costs; the sum of the one-hour cache writes follows at `first` + 7.
QuotaSessionTokenUsage groupTokens(const sqlite::Statement& row, int first) {
    QuotaSessionTokenUsage tokens{row.integer(first + 2), row.integer(first + 3), row.integer(first + 4),
                                  row.integer(first + 5), std::nullopt};
    if (row.integer(first) != 0) tokens.exactCostUSD = row.real(first + 6);
    return tokens;
}

QuotaUsageCharges groupCharges(const sqlite::Statement& row, int first) {
    return {row.real(first), row.real(first + 1), row.real(first + 2)};
}

constexpr const char* kGroupedColumns =
    "IFNULL(cost_usd, 0) > 0 AS reported, COUNT(*), SUM(input_tokens), SUM(output_tokens), SUM(cache_read_tokens),\n"
    "       SUM(cache_write_tokens), SUM(cost_usd), " GP_EXTRA_SUMS("");

}  // namespace

std::vector<QuotaUsageEntryStore::UsageBucket> QuotaUsageEntryStore::usageBuckets(const std::optional<std::string>& providerID,
                                                                                 std::optional<Date> since,
                                                                                 std::optional<Date> until) const {
    // Stored sums of the quarters no write has touched since they were summed, and live sums of
    // the others; the same filter on both halves.
    const EntryFilter filter{providerID, firstQuarterFrom(since), firstQuarterFrom(until)};
    std::vector<UsageBucket> buckets;
    registry_.withConnection([&](sqlite::Connection& connection) {
        const std::string sql = std::string("SELECT * FROM (\n") + kStoredQuarterSums + "\nUNION ALL\n" +
                                notedQuarterSums(connection) + "\n) WHERE 1" + filter.sql("provider_id", "quarter") +
                                "\nORDER BY quarter";
        sqlite::Statement select{connection, sql.c_str(), "prepare usage buckets", "execute usage buckets"};
        filter.bind(select);
        while (select.step()) {
            buckets.push_back({select.integer(0), std::string(select.text(1).value_or("")),
                               std::string(select.text(2).value_or("")), select.integer(4), groupTokens(select, 3),
                               select.integer(10), groupCharges(select, 11)});
        }
    });
    return buckets;
}

std::vector<QuotaUsageEntryStore::SessionModelUsage> QuotaUsageEntryStore::sessionModelUsage(
    const std::optional<std::string>& providerID, std::optional<Date> since, std::optional<Date> until) const {
    const EntryFilter filter{providerID, seconds(since), seconds(until)};
    const std::string sql = std::string("SELECT u.provider_id, u.session_id, u.model, MAX(u.timestamp),\n       ") +
                            kGroupedColumns + ", s.project_path\nFROM usage_entries u\n" +
                            "LEFT JOIN import_sessions s ON s.provider_id = u.provider_id AND s.session_id = u.session_id\n" +
                            "WHERE u.counted = 1" + filter.sql("u.provider_id", "u.timestamp") +
                            "\nGROUP BY u.provider_id, u.session_id, u.model, reported";
    std::vector<SessionModelUsage> rows;
    registry_.withConnection([&](sqlite::Connection& connection) {
        sqlite::Statement select{connection, sql.c_str(), "prepare session usage", "execute session usage"};
        filter.bind(select);
        while (select.step()) {
            rows.push_back({{std::string(select.text(0).value_or("")), std::string(select.text(1).value_or(""))},
                            std::string(select.text(2).value_or("")), select.integer(5), groupTokens(select, 4),
                            dateFromSeconds(select.real(3)), sqlite::optionalText(select, 15), select.integer(11),
                            groupCharges(select, 12)});
        }
    });
    return rows;
}

std::optional<QuotaObservedRateLimits> QuotaUsageEntryStore::latestRateLimits(std::string_view providerID) const {
    std::optional<QuotaObservedRateLimits> limits;
    registry_.withConnection([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, "SELECT limits_json FROM import_rate_limits WHERE provider_id = ?",
                                 "prepare rate limits", "execute rate limits"};
        select.bind(1, providerID);
        if (!select.step()) return;
        try {
            limits = json::decode<QuotaObservedRateLimits>(select.text(0).value_or(""));
        } catch (const json::DecodingError&) {
        }
    });
    return limits;
}

}  // namespace gaugepoint
