#include "gaugepoint/importers/PieceWriter.hpp"

#include <chrono>

#include "gaugepoint/platform/HashesSeen.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"
#include "gaugepoint/stores/SQLiteStatementCache.hpp"

namespace gaugepoint::scanning {
namespace {

// Writes pieces in order: a piece's rows, the parser's state and the file's new position. Pieces
// are written in batches, one transaction each, so the rows and positions of a whole batch commit
// together (a scan stopped in between loses the batch and counts none of it twice). Another scan
// that moved a file's position in between wins: that piece and the rest of its file are skipped.
class PieceWriter {
public:
    PieceWriter(const QuotaSessionFileRegistry& registry, QuotaScanSummary& tally) : registry_(registry), tally_(tally) {}

    // Writes every piece the queue gives until the reader has finished.
    void writeAll(PieceQueue& queue) {
        auto next = queue.pop();
        std::unique_ptr<Collected> spent;  // the records just written, for a reader to free
        while (next) {
            registry_.inTransaction("import logs", [&](sqlite::Connection& connection) {
                sqlite::StatementCache statements{connection};
                if (!checkedEmpty_) {
                    if (QuotaUsageEntryStore::hasNoEntries(statements)) {
                        sinceEmpty_.emplace();
                        QuotaUsageEntryStore::deferIndexes(connection);
                        QuotaSessionFileRegistry::deferIndexes(connection);
                        QuotaUsageEntryStore::markEverySessionBehind(statements);
                    }
                    checkedEmpty_ = true;
                }
                if (sinceEmpty_) QuotaUsageEntryStore::beginBulkBatch(connection);
                const auto started = std::chrono::steady_clock::now();
                for (std::size_t written = 1;; ++written) {
                    write(statements, *next);
                    spent = std::move(next->records);
                    next.reset();
                    if (written >= kBatchPieces || std::chrono::steady_clock::now() - started >= kBatchTime) break;
                    if (!(next = queue.pop(std::move(spent)))) break;
                }
                if (sinceEmpty_) QuotaUsageEntryStore::endBulkBatch(connection);
            });
            if (!next) next = queue.pop(std::move(spent));
        }
    }

    // Whether the import started into empty entries, its indexes by file and session deferred.
    bool deferredIndexes() const { return sinceEmpty_.has_value(); }

private:
    // A batch ends after this many pieces or this long, whichever comes first: few commits (a
    // page of a usage index is written to the log again by every batch that changes it), and
    // little work lost when a scan is stopped.
    static constexpr std::size_t kBatchPieces = 100000;
    static constexpr std::chrono::milliseconds kBatchTime{2000};

    void write(sqlite::StatementCache& statements, Piece& piece) {
        Collected& records = *piece.records;
        tally_.linesSkipped += std::int64_t(records.bad_.size());
        for (auto& bad : records.bad_) {
            if (tally_.problems.size() < kMaximumProblems) tally_.problems.push_back(std::move(bad));
        }
        if (abandonedPath_ == piece.entry.path) return;
        if (!records.firstSession_.empty()) piece.entry.sessionID = records.firstSession_;
        const auto& e = piece.entry;
        // A file the registry did not know when the scan began has no entry but the one this
        // scan writes (only scans add entries, and they hold the scan lock): its first piece
        // needs no lookup, unless the same path came twice.
        const bool firstOfNewFile = !piece.expected && !newFiles_.seen(std::hash<std::string_view>{}(piece.entry.path));
        if (!firstOfNewFile && QuotaSessionFileRegistry::lastOffset(statements, e) != piece.expected) {
            abandonedPath_ = piece.entry.path;
            return;
        }
        bool created = false;
        const std::int64_t key = QuotaUsageEntryStore::fileKeyWithState(statements, e, piece.state, piece.prefixDigest,
                                                                         !piece.expected, created);
        QuotaUsageEntryStore::Tally forgotten;
        if (piece.forgetFirst && !created) forgotten = QuotaUsageEntryStore::forgetFile(statements, key);
        if (!piece.rowGroups.empty() && !created) {
            forgotten = QuotaUsageEntryStore::forgetRows(statements, key, e.providerID, piece.rowGroups);
        }
        const auto added =
            QuotaUsageEntryStore::record(statements, key, records.usage_, records.messages_, e.providerID, records.sessions_,
                                         sinceEmpty_ ? &*sinceEmpty_ : nullptr);
        if (!records.titles_.empty()) QuotaUsageEntryStore::noteSessionTitles(statements, e.providerID, records.titles_);
        if (records.limits_) QuotaUsageEntryStore::noteRateLimits(statements, *records.limits_);
        QuotaSessionFileRegistry::upsert(statements, e);
        tally_.tokens += forgotten.countedTokens + added.countedTokens;
    }

    const QuotaSessionFileRegistry& registry_;
    QuotaScanSummary& tally_;
    std::string abandonedPath_;
    HashesSeen newFiles_;  // paths unknown to the registry, written by this scan (a collision costs a lookup)
    // A scan into empty usage entries (the first) looks up only keys it wrote itself; only
    // scans write the entries, and they hold the scan lock.
    bool checkedEmpty_ = false;
    std::optional<QuotaUsageEntryStore::KeysSinceEmpty> sinceEmpty_;
};

}  // namespace

bool writePieces(const QuotaSessionFileRegistry& registry, PieceQueue& queue, QuotaScanSummary& written) {
    PieceWriter writer{registry, written};
    writer.writeAll(queue);
    return writer.deferredIndexes();
}

}  // namespace gaugepoint::scanning
