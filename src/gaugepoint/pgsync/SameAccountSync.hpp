#pragma once

// Same-account sync between the user's machines through a PostgreSQL server (see
// PostgresRecordZone.hpp for the server side). Every machine pushes what it made itself and
// pulls what the others pushed:
//   push  this machine's source device and latest snapshot (from the source snapshot store),
//         its session descriptors changed since the last push (the catalogue's incremental
//         export, under a device key of the server), and the inbox's notify events it has not
//         handed over yet (deleted ones as deletions). Records are built with the record codec
//         under the current epoch and written in batches; a write names the change tag it last
//         saw, and when another machine has changed the record in between, the copy with the
//         later update time wins. Nothing counts as pushed until the server has committed it.
//   pull  the records written after the last one applied, in write order: snapshots into the
//         source snapshot store (channel kvs), descriptors into the catalogue under their own
//         source, notify events into the inbox, deletions delete. Records of another epoch
//         are skipped and counted. Applying is idempotent and the position moves only after a
//         page is applied, so a pull cut off anywhere loses nothing and duplicates nothing.
// Before either, the epoch is reconciled with the server's key-value store (ensureBootstrapped).
// Failures go through PostgresRetry; a lost connection is made again.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <boost/describe/class.hpp>

#include "gaugepoint/pgsync/PostgresRetry.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint {

struct SameAccountSyncOptions {
    std::string connectionString;
    std::int64_t pushBatchSize = QuotaSyncConstants::CloudKit::pushSaveChunkSize;
    std::int64_t pullPageSize = QuotaSyncConstants::CloudKit::pullResultsLimit;
    PostgresRetry::Settings retry;
    // Called after each committed batch and each applied page, with the records so far.
    std::function<void(std::string_view stage, std::int64_t records)> progress;
};

struct SyncPushSummary {
    std::int64_t sourceRecords = 0;  // device and snapshot records of this machine
    std::int64_t descriptors = 0;
    std::int64_t notifyEvents = 0;
    std::int64_t deletions = 0;
    std::int64_t conflictsWon = 0;   // another machine had changed the record; ours was newer
    std::int64_t conflictsLost = 0;  // theirs was newer and stays
    std::string epoch;
    std::string server;
};
BOOST_DESCRIBE_STRUCT(SyncPushSummary, (),
                      (sourceRecords, descriptors, notifyEvents, deletions, conflictsWon, conflictsLost, epoch, server))

struct SyncPullSummary {
    std::int64_t snapshots = 0;
    std::int64_t devices = 0;
    std::int64_t descriptors = 0;
    std::int64_t notifyEvents = 0;
    std::int64_t deletions = 0;
    std::int64_t skippedForeignEpoch = 0;
    std::int64_t skippedOwn = 0;       // this machine's own records, already here
    std::int64_t skippedOther = 0;     // record types this machine keeps nothing of (transcripts)
    std::int64_t undecodable = 0;
    std::int64_t pulledThrough = 0;
    std::string epoch;
    std::string server;
};
BOOST_DESCRIBE_STRUCT(SyncPullSummary, (),
                      (snapshots, devices, descriptors, notifyEvents, deletions, skippedForeignEpoch, skippedOwn,
                       skippedOther, undecodable, pulledThrough, epoch, server))

struct SyncStatusReport {
    std::string server;
    std::optional<std::string> epoch;       // this machine's
    std::optional<std::string> cloudEpoch;  // the server's
    std::optional<Date> lastPushAt, lastPullAt;
    std::int64_t pulledThrough = 0;
    std::int64_t latestChange = 0;
    std::map<std::string, std::int64_t> serverRecords;  // by record type, of this role
    std::int64_t recordsPushed = 0, recordsPulled = 0, skippedForeignEpoch = 0;
};
BOOST_DESCRIBE_STRUCT(SyncStatusReport, (),
                      (server, epoch, cloudEpoch, lastPushAt, lastPullAt, pulledThrough, latestChange, serverRecords,
                       recordsPushed, recordsPulled, skippedForeignEpoch))

class SameAccountSync {
public:
    SameAccountSync(QuotaSyncConfiguration configuration, SameAccountSyncOptions options);

    // Creates what is missing on the server (PostgresRecordZone::setup) and returns the server's
    // description. Throws PostgresError.
    std::string setup() const;
    // Throw PostgresError (after the retries) and the local stores' errors.
    SyncPushSummary push() const;
    SyncPullSummary pull() const;
    SyncStatusReport status() const;

    // The catalogue's device key for this server's exports.
    static std::string deviceKey(std::string_view serverKey);

    class Link;  // a connection to the server that is made again when lost

private:
    QuotaSyncConfiguration configuration_;
    SameAccountSyncOptions options_;
};

}  // namespace gaugepoint
