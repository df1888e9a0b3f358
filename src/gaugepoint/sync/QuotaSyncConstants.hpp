#pragma once

// Every tuning number of synchronisation and persistence: limits, intervals and back-offs,
// grouped by channel. Code that needs one of these takes it from here and never writes the
// number itself, so one change here changes the behaviour everywhere at once. Integers are
// signed 64-bit unless declared unsigned; "Seconds" and durations without a unit in their name
// are seconds as doubles; "Millis" are milliseconds; "Bytes" are bytes.

#include <cstdint>

namespace gaugepoint::QuotaSyncConstants {

// Requests to the cloud record database.
namespace CloudKit {
// The most results asked for in one pull request.
inline constexpr std::int64_t pullResultsLimit = 400;
// The most records saved in one push request.
inline constexpr std::int64_t pushSaveChunkSize = 200;
// Request timeout of a fetch, seconds.
inline constexpr double fetchRequestTimeout = 20.0;
// Resource timeout of a fetch, seconds.
inline constexpr double fetchResourceTimeout = 60.0;
}  // namespace CloudKit

// Sending earlier notify events to a machine that joins late.
namespace NotifyBackfill {
// Notify events per backfill batch.
inline constexpr std::int64_t maxBatchSize = 40;
// Pause between batches, milliseconds.
inline constexpr std::uint64_t interBatchDelayMillis = 500;
// Largest jitter of that pause, as a fraction of it.
inline constexpr double interBatchJitterMaxFraction = 0.25;
// Most retry attempts.
inline constexpr std::int64_t maxRetryAttempts = 5;
// First back-off, milliseconds.
inline constexpr std::uint64_t baseBackoffMillis = 500;
// Back-off ceiling, milliseconds.
inline constexpr std::uint64_t maxBackoffMillis = 30000;
}  // namespace NotifyBackfill

// Sync over the local network.
namespace LAN {
// Timeout of the TCP reachability probe, milliseconds.
inline constexpr std::int64_t probeTCPTimeoutMillis = 1000;
// Network prefix length of the subnet hint, bits.
inline constexpr std::int64_t subnetHintPrefixLength = 24;
// Reachability suppression window, seconds.
inline constexpr double reachabilitySuppressionWindow = 60.0;
// First back-off of record repair, seconds.
inline constexpr double repairBaseBackoff = 30.0;
// Ceiling of the repair back-off, seconds.
inline constexpr double repairMaxBackoff = 300.0;
// Largest request body the local-network server accepts, bytes.
inline constexpr std::int64_t httpMaxRequestBodySize = 65536;
}  // namespace LAN

// Sizes of what the transports carry.
namespace Transport {
// Transcript size from which transcripts are sharded, bytes.
inline constexpr std::int64_t transcriptShardThresholdBytes = 524288;
// Size of one transcript shard.
inline constexpr std::int64_t transcriptShardSize = 240;
// The key-value store's total size ceiling, bytes.
inline constexpr std::int64_t kvsAbsoluteCeilingBytes = 1048576;
// Headroom reserved below that ceiling, bytes.
inline constexpr std::int64_t kvsReservedHeadroomBytes = 98304;
// Session descriptors kept in a compacted catalogue.
inline constexpr std::int64_t compactedCatalogMaxDescriptors = 360;
// Aggregate buckets kept in a compacted catalogue.
inline constexpr std::int64_t compactedCatalogMaxAggregates = 365;
// Most items per group in a balanced selection.
inline constexpr std::int64_t balancedSelectionMaxPerGroup = 40;
// Transcript bundles carried by one envelope.
inline constexpr std::int64_t envelopeMaxTranscriptBundles = 18;
// Size ceiling of one envelope, bytes.
inline constexpr std::int64_t envelopeMaxBytes = 920000;
}  // namespace Transport

// How much of a coding session is kept, per content-capture mode. The more of each session a
// mode keeps, the fewer messages and the more total bytes it allows, while the characters per
// message fall. The three rows are deliberately not proportional; keep them as they stand.
namespace Persistence {
namespace PromptsOnly {
inline constexpr std::int64_t maxMessagesPerSession = 2000;
inline constexpr std::int64_t maxCharactersPerMessage = 16000;
inline constexpr std::int64_t maxSessionTotalBytes = 4000000;
}  // namespace PromptsOnly
namespace PromptsAndAnswers {
inline constexpr std::int64_t maxMessagesPerSession = 1500;
inline constexpr std::int64_t maxCharactersPerMessage = 12000;
inline constexpr std::int64_t maxSessionTotalBytes = 6000000;
}  // namespace PromptsAndAnswers
namespace FullTranscript {
inline constexpr std::int64_t maxMessagesPerSession = 1200;
inline constexpr std::int64_t maxCharactersPerMessage = 8000;
inline constexpr std::int64_t maxSessionTotalBytes = 8000000;
}  // namespace FullTranscript
// Count multiplier of degraded persistence.
inline constexpr std::int64_t degradationCountMultiplier = 2;
// Stagger between insertion times, seconds (one microsecond).
inline constexpr double insertedAtStaggerSeconds = 0.000001;
}  // namespace Persistence

// Automatic refresh and pairing publication on the desktop.
namespace MacAutoSync {
// Default interval of automatic refresh, seconds.
inline constexpr double defaultRefreshIntervalSeconds = 300.0;
// The shortest interval the user may choose, seconds.
inline constexpr double minRefreshIntervalSeconds = 60.0;
// The least time between two pairing publications, seconds.
inline constexpr double pairingPublishMinimumInterval = 300.0;
// Quiet time before a pairing publication goes out, seconds.
inline constexpr double pairingPublishDebounceSeconds = 15.0;
// Number of observations for the upstream-stale threshold.
inline constexpr std::int64_t upstreamStaleObservationThreshold = 6;
// Most consecutive pairing publication errors.
inline constexpr std::int64_t pairingPublishMaxConsecutiveErrors = 3;
}  // namespace MacAutoSync

namespace MacSync {
// Interval of pushes of the full catalogue to the key-value store, seconds (six hours).
inline constexpr double fullCatalogKVSPushInterval = 21600.0;
}  // namespace MacSync

namespace PhoneSync {
// Freshness threshold of a foreground refresh, seconds.
inline constexpr double foregroundRefreshFreshnessThreshold = 30.0;
}  // namespace PhoneSync

}  // namespace gaugepoint::QuotaSyncConstants
