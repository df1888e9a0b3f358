#pragma once

// The rows the log import records, kept in the registry's file so that they commit in the same
// transaction as the registry entry that says how far their file was read:
//   usage_entries    one row per file and counted response; of the rows that share a response
//                    (a dedup key) exactly one is counted, the one with the most output tokens;
//   import_messages  one row per file and message, with text only as the capture mode allows
//                    (the importer keeps only the prompts, without text, under metadataOnly);
//   import_sessions  where each session ran and the title its tool keeps; import_dirty_sessions, sessions whose catalogue
//                    descriptor is behind; import_rate_limits, the newest limits per provider;
//   import_files     an integer key, the parser's state (Codex running totals) and a digest of
//                    the bytes read so far per file.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaSessionDescriptor.hpp"
#include "gaugepoint/model/QuotaSessionImportRecords.hpp"
#include "gaugepoint/model/QuotaUsageRecords.hpp"
#include "gaugepoint/platform/HashesSeen.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"
#include "gaugepoint/stores/UsageQuarterSums.hpp"

namespace gaugepoint {

class QuotaUsageEntryStore {
public:
    explicit QuotaUsageEntryStore(QuotaSessionFileRegistry registry) : registry_(std::move(registry)) {}

    // Creates the tables and indexes (part of the registry file's set-up).
    static void ensureSchema(sqlite::Connection& connection);

    // ---- writes, inside one registry transaction, with statements kept for the transaction ----

    // The integer key of the file an entry describes, made on first use.
    static std::int64_t fileKey(sqlite::StatementCache& statements, const QuotaSessionFileRegistryEntry& entry);
    // The key of the file with the parser's state after this read set to `state`. A file the
    // registry did not know (`likelyNew`) is tried with one insert that stores both, instead of
    // a lookup, an insert and an update. `created` tells whether that insert made the key: no
    // row refers to it yet, so there is nothing of the file to forget.
    // The file's prefix digest (what was read of it, see ReadOn) is set with the state.
    static std::int64_t fileKeyWithState(sqlite::StatementCache& statements, const QuotaSessionFileRegistryEntry& entry,
                                         std::string_view state, std::optional<std::int64_t> prefixDigest,
                                         bool likelyNew, bool& created);
    // The parser's state for the file ("" at first), and its replacement.
    static std::string parserState(sqlite::StatementCache& statements, std::int64_t fileKey);
    // What reading a file on from its position needs: the parser's state ("" when none) and the
    // digest of the bytes read so far (none for files read before it was kept). Writes nothing.
    struct ReadOn {
        std::string state;
        std::optional<std::int64_t> prefixDigest;
    };
    static ReadOn readOn(sqlite::StatementCache& statements, const QuotaSessionFileRegistryEntry& entry);
    static void setParserState(sqlite::StatementCache& statements, std::int64_t fileKey, std::string_view state);

    // What writes changed: counted tokens added (negative when a forgotten file took some away).
    struct Tally {
        std::int64_t countedTokens = 0;
        std::int64_t countedEntries = 0;
    };
    // Removes what the file contributed. A response it shared with other files is then counted
    // from the best of those. The sessions it touched are marked behind.
    static Tally forgetFile(sqlite::StatementCache& statements, std::int64_t fileKey);
    // The same for the file's records of some rows only: of each group, the usage entries and
    // messages keyed by the group or by the group, "/" and more.
    static Tally forgetRows(sqlite::StatementCache& statements, std::int64_t fileKey, std::string_view providerID,
                            const std::vector<std::string>& groups);
    // The dedup keys written since the usage entries were found empty: a key not among them
    // needs no lookup (the first import of a history writes most responses once). Kept as
    // hashes, so a collision costs a lookup and never a wrong count. Not for concurrent use.
    class KeysSinceEmpty {
    public:
        // Whether a row of the key may exist; remembers the key as written.
        bool mayExist(std::string_view providerID, std::string_view dedupKey);

    private:
        HashesSeen written_;
    };
    // Whether there are no usage entries at all.
    static bool hasNoEntries(sqlite::StatementCache& statements);
    // For batches of a first import into empty entries, inside each batch's transaction: the
    // per-row triggers that note changed quarter hours are off from begin to end, and end notes
    // every quarter with counted entries (all there are, the sums being empty until the scan
    // refreshes them) and restores the triggers, so every committed state is whole.
    static void beginBulkBatch(sqlite::Connection& connection);
    // For a first import into empty entries, in its first batch: drops the indexes by file and
    // by session, which buildDeferredIndexes() makes again in one pass once the import is
    // written (and the schema makes again on the next open, should the import stop before).
    static void deferIndexes(sqlite::Connection& connection);
    void buildDeferredIndexes() const;
    static void endBulkBatch(sqlite::Connection& connection);

    // Records one read of the file: usage entries (the same key twice keeps the most output),
    // messages (the same key twice joins their texts), and where sessions ran. Marks each of its
    // sessions behind, but with `sinceEmpty`: a first import marks every session at once
    // (markEverySessionBehind), and `sinceEmpty` must hold every key written since the entries
    // were empty.
    static Tally record(sqlite::StatementCache& statements, std::int64_t fileKey, const std::vector<QuotaUsageEntry>& usage,
                        const std::vector<QuotaImportedMessage>& messages, std::string_view providerID,
                        const std::vector<std::pair<std::string, std::string>>& sessionProjects,
                        KeysSinceEmpty* sinceEmpty = nullptr);
    // Keeps the titles the tool gave its sessions (session id, title), each made one line of at
    // most 120 terminal columns; an empty one is ignored. A session whose title changed is marked
    // behind.
    static void noteSessionTitles(sqlite::StatementCache& statements, std::string_view providerID,
                                  const std::vector<std::pair<std::string, std::string>>& titles);
    // Keeps `limits` when they are newer than those stored for the provider.
    static void noteRateLimits(sqlite::StatementCache& statements, const QuotaObservedRateLimits& limits);

    // ---- reads; each throws QuotaSessionFileRegistryError ----

    struct SessionKey {
        std::string providerID;
        std::string sessionID;
        bool operator==(const SessionKey&) const = default;
        auto operator<=>(const SessionKey&) const = default;
    };
    // The sessions marked behind one by one, and whether every session is (one mark for all,
    // set by a first import in its first batch and kept until the whole catalogue is written).
    std::vector<SessionKey> dirtySessions() const;
    bool everySessionBehind() const;
    static void markEverySessionBehind(sqlite::StatementCache& statements);
    // Marks each session the stores know as behind, in place of the one mark for all.
    void markEachSessionBehind() const;
    void clearDirty(const std::vector<SessionKey>& sessions) const;
    // Clears every mark, the one for all too: once every session the store knows is written.
    void clearEveryMark() const;

    // A session's counted usage per model (sessionCount 1, messageCount its responses), most
    // tokens first, and the first and last response times.
    struct SessionUsage {
        std::vector<QuotaSessionModelUsageSummary> models;
        std::optional<Date> first;
        std::optional<Date> last;
    };
    SessionUsage sessionUsage(const SessionKey& session) const;
    // A session's messages, each once, in time order.
    std::vector<QuotaImportedMessage> sessionMessages(const SessionKey& session) const;
    std::optional<std::string> sessionProjectPath(const SessionKey& session) const;
    // What the catalogue is written from, for each session, read in one go: its usage, project
    // and messages. Without `withMessages` the messages are only counted: the prompts (each
    // once) and the span of their times.
    struct SessionContent {
        SessionUsage usage;
        std::vector<QuotaImportedMessage> messages;  // with `withMessages` only
        std::int64_t prompts = 0;
        std::optional<Date> firstMessage, lastMessage;
        std::optional<std::string> projectPath;
        std::optional<std::string> title;  // the one the tool keeps, if it keeps one
    };
    std::vector<SessionContent> sessionContents(const std::vector<SessionKey>& sessions, bool withMessages = true) const;
    // The content of every session the store knows, without messages (as sessionContents with
    // `withMessages` false), read in one pass per table on a connection of its own (beside
    // writes to the store): for publishing a whole catalogue. With `quarters`, the counted usage
    // read is summed into it too (see refreshUsageQuarters).
    std::map<SessionKey, SessionContent> everySessionContent(UsageQuarterSums* quarters = nullptr) const;

    // Counted entries in time order, of one provider or all, within [since, until).
    std::vector<QuotaUsageEntry> countedEntries(const std::optional<std::string>& providerID = std::nullopt,
                                                std::optional<Date> since = std::nullopt,
                                                std::optional<Date> until = std::nullopt) const;
    std::optional<QuotaObservedRateLimits> latestRateLimits(std::string_view providerID) const;

    // Sums again the quarter hours whose counted entries changed (a scan ends with it). After a
    // first import, when every quarter changed, `every` sums them all in one pass over the
    // entries instead of one quarter at a time, or stores `summed` when a pass over every counted
    // entry since the last write made them (publishing does) and they are exact.
    enum class Quarters { changed, every };
    void refreshUsageQuarters(Quarters which = Quarters::changed, const UsageQuarterSums* summed = nullptr) const;

    // Counted usage summed per quarter hour (UTC), provider, model and whether the log reported
    // a cost; `tokens.exactCostUSD` is the sum of the reported costs in that last case. Every
    // time zone's day starts on a quarter hour, so these sums group exactly into the days, weeks
    // and months of any zone without reading each entry. Ordered by quarter; a quarter is
    // included when it starts within [since, until). The sums are kept up to date by
    // refreshUsageQuarters(); quarters that changed since are summed from the entries, so the
    // result is always exact.
    struct UsageBucket {
        std::int64_t quarterHour = 0;  // seconds since 1970 / 900, floored
        std::string providerID;
        std::string model;
        std::int64_t entries = 0;
        QuotaSessionTokenUsage tokens;
        std::int64_t cacheWrite1hTokens = 0;  // the one-hour part of tokens.cacheWriteTokens
        QuotaUsageCharges charges;
    };
    std::vector<UsageBucket> usageBuckets(const std::optional<std::string>& providerID = std::nullopt,
                                          std::optional<Date> since = std::nullopt,
                                          std::optional<Date> until = std::nullopt) const;

    // Counted usage per session and model (with a reported cost apart, as above), with the
    // session's last entry time and project.
    struct SessionModelUsage {
        SessionKey session;
        std::string model;
        std::int64_t entries = 0;
        QuotaSessionTokenUsage tokens;
        Date lastActivity;
        std::optional<std::string> projectPath;
        std::int64_t cacheWrite1hTokens = 0;  // the one-hour part of tokens.cacheWriteTokens
        QuotaUsageCharges charges;
    };
    std::vector<SessionModelUsage> sessionModelUsage(const std::optional<std::string>& providerID = std::nullopt,
                                                     std::optional<Date> since = std::nullopt,
                                                     std::optional<Date> until = std::nullopt) const;

    const QuotaSessionFileRegistry& registry() const { return registry_; }

private:
    bool anyDirtyQuarter() const;

    QuotaSessionFileRegistry registry_;
};

}  // namespace gaugepoint
