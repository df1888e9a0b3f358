#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"

#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"

namespace gaugepoint {
namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS provider_token_snapshot (\n"
    "    id TEXT PRIMARY KEY,\n"
    "    source_id TEXT NOT NULL,\n"
    "    provider_id TEXT NOT NULL,\n"
    "    provider_name TEXT,\n"
    "    day_key TEXT NOT NULL,\n"
    "    recorded_at REAL NOT NULL,\n"
    "    total_tokens INTEGER NOT NULL DEFAULT 0,\n"
    "    cost_usd REAL NOT NULL DEFAULT 0\n"
    ");\n"
    "CREATE INDEX IF NOT EXISTS idx_ptl_source_day ON provider_token_snapshot(source_id, day_key DESC);\n"
    "CREATE INDEX IF NOT EXISTS idx_ptl_provider ON provider_token_snapshot(provider_id);\n"
    "CREATE INDEX IF NOT EXISTS idx_ptl_day ON provider_token_snapshot(day_key DESC);";

constexpr const char* kLookup = "SELECT recorded_at FROM provider_token_snapshot WHERE id = ?";
constexpr const char* kInsert =
    "INSERT OR REPLACE INTO provider_token_snapshot (\n    id,\n    source_id,\n    provider_id,\n    provider_name,\n"
    "    day_key,\n    recorded_at,\n    total_tokens,\n    cost_usd\n) VALUES (?, ?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kSummary =
    "SELECT day_key, total_tokens, cost_usd\nFROM provider_token_snapshot\nWHERE source_id = ? AND day_key >= ?\n"
    "ORDER BY day_key DESC";
constexpr const char* kSummaryForProvider =
    "SELECT day_key, total_tokens, cost_usd\nFROM provider_token_snapshot\n"
    "WHERE source_id = ? AND provider_id = ? AND day_key >= ?\nORDER BY day_key DESC";
constexpr const char* kTrim = "DELETE FROM provider_token_snapshot WHERE day_key < ?";
constexpr const char* kDeleteAll = "DELETE FROM provider_token_snapshot";

std::string orUnknown(std::string_view part) { return part.empty() ? "unknown" : std::string(part); }

// The first day a summary of `days` days includes: today - days + 1.
std::string firstDayKey(const QuotaSyncConfiguration& configuration, int days) {
    const LocalCalendar calendar = LocalCalendar::current();
    return calendar.dayKey(calendar.addingDays(configuration.clock.now(), 1 - days));
}

struct PendingRow {
    QuotaTokenLedgerEntry entry;
    std::string id;
};

// Writes `row` unless a stored row of its id was recorded at the same time or later.
bool writeUnlessNewerStored(sqlite::Statement& lookup, sqlite::Statement& insert, const PendingRow& row) {
    lookup.reset();
    lookup.bind(1, row.id);
    if (lookup.step() && lookup.real(0) >= secondsSince1970(row.entry.recordedAt)) return false;
    lookup.reset();
    insert.reset();
    insert.bind(1, row.id)
        .bind(2, row.entry.sourceID)
        .bind(3, row.entry.providerID)
        .bind(4, row.entry.providerName)
        .bind(5, row.entry.dayKey)
        .bind(6, secondsSince1970(row.entry.recordedAt))
        .bind(7, row.entry.totalTokens)
        .bind(8, row.entry.costUSD);
    insert.run();
    return true;
}

std::int64_t writeRows(sqlite::Connection& connection, const std::vector<PendingRow>& rows) {
    sqlite::Transaction transaction{connection, "upsert"};
    sqlite::CachedStatement lookup{connection, kLookup, "prepare upsert", "execute recorded_at lookup"};
    sqlite::CachedStatement insert{connection, kInsert, "prepare upsert", "execute upsert"};
    std::int64_t written = 0;
    for (const auto& row : rows) written += writeUnlessNewerStored(lookup, insert, row) ? 1 : 0;
    transaction.commit();
    return written;
}

PendingRow pending(QuotaTokenLedgerEntry entry) {
    PendingRow row{std::move(entry), {}};
    row.entry.sourceID = orUnknown(row.entry.sourceID);
    row.entry.providerID = orUnknown(row.entry.providerID);
    row.id = QuotaSessionTokenLedger::rowID(row.entry.sourceID, row.entry.providerID, row.entry.dayKey);
    return row;
}

std::vector<QuotaDailyTokenEntry> readSummary(sqlite::Statement& select) {
    std::vector<QuotaDailyTokenEntry> entries;
    while (select.step()) {
        entries.push_back({std::string(select.text(0).value_or("")), select.real(2), select.integer(1)});
    }
    return entries;
}

}  // namespace

QuotaSessionTokenLedger::QuotaSessionTokenLedger(QuotaSyncConfiguration configuration,
                                                 const std::optional<std::filesystem::path>& containerURLOverride)
    : SQLiteStore(std::move(configuration), containerURLOverride, defaultFilename) {}

std::string QuotaSessionTokenLedger::rowID(std::string_view sourceID, std::string_view providerID,
                                           std::string_view dayKey) {
    return orUnknown(sourceID) + "_" + orUnknown(providerID) + "_" + orUnknown(dayKey);
}

std::string QuotaSessionTokenLedger::dayKey(Date date) { return LocalCalendar::current().dayKey(date); }

// Opens on first use, bringing the earlier cloud document's rows over once.
template <class Operation>
auto QuotaSessionTokenLedger::runLedger(Operation&& operation) const {
    static constexpr LegacyMigration migration{migrationMarkerKey};
    std::optional<QuotaTokenLedgerDocument> legacy;
    const auto readLegacy = [&] {
        const auto file = LegacyMigration::legacyFile(configuration_, legacyFilename);
        if (!file) return false;
        try {
            legacy = json::decode<QuotaTokenLedgerDocument>(readInputFile(*file, InputLimit::document("a ledger document")));
        } catch (const Error&) {
            return false;  // a document that does not decode is left where it is
        }
        return true;
    };
    const auto beforeOpen = [&](SQLiteConnectionHolder& holder) {
        migration.beforeOpen(holder, configuration_, *file_, readLegacy);
    };
    const SQLiteStoreSetup setup{"Unable to open ledger database at ", kSchema, [&](sqlite::Connection& connection) {
                                     if (!legacy) return;
                                     std::vector<PendingRow> rows;
                                     for (const auto& entry : legacy->entries) rows.push_back(pending(entry));
                                     writeRows(connection, rows);
                                     migration.finish(*connectionHolder_, configuration_);
                                 }};
    return run(setup, operation, beforeOpen);
}

std::int64_t QuotaSessionTokenLedger::upsert(const QuotaSnapshot& snapshot) const {
    std::vector<PendingRow> rows;
    const std::string sourceID = snapshot.source ? snapshot.source->sourceID : "unknown";
    for (const auto& provider : snapshot.providers) {
        if (!provider.dailyTokenUsage) continue;
        for (const auto& day : *provider.dailyTokenUsage) {
            const std::optional<std::string> name =
                provider.displayName.empty() ? std::nullopt : std::optional(provider.displayName);
            rows.push_back(pending({sourceID, provider.id, name, day.dayKey, snapshot.generatedAt, day.totalTokens, day.costUSD}));
        }
    }
    if (rows.empty()) return 0;
    return runLedger([&](sqlite::Connection& connection) { return writeRows(connection, rows); });
}

std::vector<QuotaDailyTokenEntry> QuotaSessionTokenLedger::dailySummary(std::string_view sourceID, int days) const noexcept {
    try {
        const std::string first = firstDayKey(configuration_, days);
        return runLedger([&](sqlite::Connection& connection) {
            sqlite::CachedStatement select{connection, kSummary, "prepare dailySummary", "execute dailySummary"};
            select.bind(1, sourceID).bind(2, first);
            return readSummary(select);
        });
    } catch (...) {
        return {};
    }
}

std::vector<QuotaDailyTokenEntry> QuotaSessionTokenLedger::dailySummary(std::string_view sourceID,
                                                                        std::string_view providerID,
                                                                        int days) const noexcept {
    try {
        const std::string first = firstDayKey(configuration_, days);
        return runLedger([&](sqlite::Connection& connection) {
            sqlite::CachedStatement select{connection, kSummaryForProvider, "prepare dailySummary for provider",
                                     "execute dailySummary for provider"};
            select.bind(1, sourceID).bind(2, providerID).bind(3, first);
            return readSummary(select);
        });
    } catch (...) {
        return {};
    }
}

std::int64_t QuotaSessionTokenLedger::trimOldEntries(double olderThanSeconds) const {
    const std::string cutoff = dayKey(configuration_.clock.now() - std::chrono::duration<double>(olderThanSeconds));
    return trimming(Trim::failsTheCall, [&] {
        return runLedger([&](sqlite::Connection& c) { return sqlite::trimRows(c, kTrim, cutoff, "trimOldEntries"); });
    });
}

std::int64_t QuotaSessionTokenLedger::deleteAll() const {
    return runLedger([](sqlite::Connection& connection) {
        sqlite::CachedStatement remove{connection, kDeleteAll, "prepare deleteAll", "execute deleteAll"};
        remove.run();
        return connection.changes();
    });
}

void QuotaSessionTokenLedger::walCheckpoint() const noexcept {
    try {
        runLedger([](sqlite::Connection& connection) { connection.checkpointQuietly(SQLiteConnectionHolder::busyTimeout()); });
    } catch (...) {
    }
}

}  // namespace gaugepoint
