#pragma once

#include <boost/describe/class.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

enum class QuotaSessionTokenLedgerErrorKind { missingAppGroupContainer, sqliteFailure };

class QuotaSessionTokenLedgerError : public KindedError<QuotaSessionTokenLedgerErrorKind> {
public:
    static QuotaSessionTokenLedgerError missingAppGroupContainer(const std::string& identifier) {
        return {Kind::missingAppGroupContainer, "The App Group container is unavailable: " + identifier + "."};
    }
    static QuotaSessionTokenLedgerError sqliteFailure(const std::string& message) { return {Kind::sqliteFailure, message}; }

private:
    using KindedError::KindedError;
};

// One row of the ledger, as the earlier cloud document listed them.
struct QuotaTokenLedgerEntry {
    std::string sourceID;
    std::string providerID;
    std::optional<std::string> providerName;
    std::string dayKey;
    Date recordedAt;
    std::int64_t totalTokens = 0;
    double costUSD = 0;
    bool operator==(const QuotaTokenLedgerEntry&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaTokenLedgerEntry, (),
                      (sourceID, providerID, providerName, dayKey, recordedAt, totalTokens, costUSD))

struct QuotaTokenLedgerDocument {
    std::int64_t version = 1;
    std::vector<QuotaTokenLedgerEntry> entries;
};
BOOST_DESCRIBE_STRUCT(QuotaTokenLedgerDocument, (), (version, entries))

// Tokens and US dollars per source, provider and local calendar day ("yyyy-MM-dd") in
// "quota-token-ledger.sqlite", one row each, taken from the daily usage that providers report in
// published snapshots. A value: copies share one connection; calls from any thread serialise on
// it, and the companion app may use the same file at the same time.
class QuotaSessionTokenLedger : public SQLiteStore<QuotaSessionTokenLedgerError> {
public:
    static constexpr std::string_view defaultFilename = "quota-token-ledger.sqlite";
    static constexpr std::string_view legacyFilename = "quota-token-ledger.json";
    static constexpr std::string_view migrationMarkerKey = "quota.tokenLedger.migratedFromICloud";

    explicit QuotaSessionTokenLedger(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard(),
                                     const std::optional<std::filesystem::path>& containerURLOverride = std::nullopt);

    // "<source>_<provider>_<day>", an empty part written as "unknown": one row per triple.
    static std::string rowID(std::string_view sourceID, std::string_view providerID, std::string_view dayKey);
    // The day key of `date` in the user's current calendar and time zone.
    static std::string dayKey(Date date);

    // Records every daily entry of every provider that has daily usage, on the entry's own day,
    // as recorded at the snapshot's generation time, under its source ("unknown" without one).
    // A stored row recorded at the same time or later is left as it is. One transaction; returns
    // how many rows were written. Throws QuotaSessionTokenLedgerError.
    std::int64_t upsert(const QuotaSnapshot& snapshot) const;

    // The rows of the last `days` local days (today and days - 1 before it), newest day first:
    // of every provider of the source, or of one. Empty on any error.
    std::vector<QuotaDailyTokenEntry> dailySummary(std::string_view sourceID, int days) const noexcept;
    std::vector<QuotaDailyTokenEntry> dailySummary(std::string_view sourceID, std::string_view providerID,
                                                   int days) const noexcept;

    // Deletes the rows of days before the day of now - `olderThanSeconds`; returns how many. Throws.
    std::int64_t trimOldEntries(double olderThanSeconds) const;
    // Deletes every row; returns how many. Throws.
    std::int64_t deleteAll() const;
    std::int64_t clear() const { return deleteAll(); }
    // Checkpoints the write-ahead log (passive); errors ignored.
    void walCheckpoint() const noexcept;

private:
    template <class Operation>
    auto runLedger(Operation&& operation) const;
};

}  // namespace gaugepoint
