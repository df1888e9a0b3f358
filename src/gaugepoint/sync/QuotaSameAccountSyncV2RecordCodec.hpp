#pragma once

// Turns the values that same-account sync carries (source devices, latest source snapshots,
// coding-session descriptors, transcript bundles, notify envelopes) into cloud records of the
// zone QuotaSameAccountSyncV2::privateZoneName, and records back into values.
//
// Every record starts with schemaVersion and syncEpoch; the other fields follow in a fixed order
// per record type, and a field whose value is absent is not written. Payloads are the value's
// JSON, stored through QuotaCloudBlobCodec with the SHA-256 of the JSON beside it, so a flipped
// byte is caught on decoding. A deletion is a record of the live type and name with
// isTombstoned = 1 and only identifying fields.
//
// A field that a record holds with another value type than the one it is written with counts as
// missing. All functions are pure and thread-safe.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gaugepoint/model/QuotaNotifyEnvelope.hpp"
#include "gaugepoint/model/QuotaSessionDescriptor.hpp"
#include "gaugepoint/model/QuotaSessionTranscript.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/model/QuotaSourceSnapshotRecord.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/sync/QuotaCloudRecord.hpp"

namespace gaugepoint {

class QuotaSameAccountSyncV2RecordCodecError : public Error {
public:
    enum class Kind { unexpectedRecordType, missingField, hashMismatch, invalidSessionDescriptorRowID, emptyEnvelopeID };

    // "Unexpected CloudKit record type: expected <expected>, got <actual>."
    static QuotaSameAccountSyncV2RecordCodecError unexpectedRecordType(std::string_view expected, std::string_view actual);
    // "Missing CloudKit record field: <field>."
    static QuotaSameAccountSyncV2RecordCodecError missingField(std::string_view field);
    // "CloudKit record hash mismatch for field: <field>."
    static QuotaSameAccountSyncV2RecordCodecError hashMismatch(std::string_view field);
    // "Invalid same-account session descriptor rowID: <rowID>."
    static QuotaSameAccountSyncV2RecordCodecError invalidSessionDescriptorRowID(std::string_view rowID);
    // "Cannot encode a notify event with an empty envelope ID."
    static QuotaSameAccountSyncV2RecordCodecError emptyEnvelopeID();

    Kind kind() const noexcept { return kind_; }
    // The payload: the field (missingField, hashMismatch), the rowID, or the expected type.
    const std::string& subject() const noexcept { return subject_; }
    // The actual record type of unexpectedRecordType; empty otherwise.
    const std::string& actual() const noexcept { return actual_; }

private:
    QuotaSameAccountSyncV2RecordCodecError(Kind kind, std::string subject, std::string actual, const std::string& message)
        : Error(message), kind_(kind), subject_(std::move(subject)), actual_(std::move(actual)) {}
    Kind kind_;
    std::string subject_;
    std::string actual_;
};

// One publishing machine as its device record describes it.
struct QuotaSameAccountSyncV2SourceDevice {
    std::string syncEpoch;
    std::string sourceID;
    std::optional<std::string> deviceName;
    std::optional<std::string> hostName;
    std::optional<std::string> platformLabel;
    std::string deviceKind;
    std::optional<std::string> appVersion;
    Date lastSeenAt;
    bool isTombstoned = false;

    bool operator==(const QuotaSameAccountSyncV2SourceDevice&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSameAccountSyncV2SourceDevice, (),
                      (syncEpoch, sourceID, deviceName, hostName, platformLabel, deviceKind, appVersion, lastSeenAt,
                       isTombstoned))

struct QuotaSameAccountSyncV2DecodedHotSnapshot {
    std::string syncEpoch;
    QuotaSourceSnapshotRecord record;
    bool operator==(const QuotaSameAccountSyncV2DecodedHotSnapshot&) const = default;
};

struct QuotaSameAccountSyncV2DecodedSessionDescriptor {
    std::string syncEpoch;
    QuotaSessionDescriptor descriptor;
    bool operator==(const QuotaSameAccountSyncV2DecodedSessionDescriptor&) const = default;
};

struct QuotaSameAccountSyncV2DecodedTranscriptBundle {
    std::string syncEpoch;
    QuotaSessionTranscriptBundle bundle;
    bool operator==(const QuotaSameAccountSyncV2DecodedTranscriptBundle&) const = default;
};

struct QuotaSameAccountSyncV2DecodedNotifyEvent {
    std::string syncEpoch;
    QuotaNotifyEnvelope envelope;
    bool operator==(const QuotaSameAccountSyncV2DecodedNotifyEvent&) const = default;
};

namespace QuotaSameAccountSyncV2RecordCodec {

// The field keys; each key's text equals its name.
namespace Field {
#define GAUGEPOINT_SYNC_FIELD(name) inline constexpr std::string_view name = #name
GAUGEPOINT_SYNC_FIELD(schemaVersion);
GAUGEPOINT_SYNC_FIELD(syncEpoch);
GAUGEPOINT_SYNC_FIELD(sourceID);
GAUGEPOINT_SYNC_FIELD(deviceName);
GAUGEPOINT_SYNC_FIELD(deviceKind);
GAUGEPOINT_SYNC_FIELD(hostName);
GAUGEPOINT_SYNC_FIELD(platformLabel);
GAUGEPOINT_SYNC_FIELD(appVersion);
GAUGEPOINT_SYNC_FIELD(lastSeenAt);
GAUGEPOINT_SYNC_FIELD(isTombstoned);
GAUGEPOINT_SYNC_FIELD(snapshotGeneratedAt);
GAUGEPOINT_SYNC_FIELD(providerCount);
GAUGEPOINT_SYNC_FIELD(payloadBlob);
GAUGEPOINT_SYNC_FIELD(payloadEncoding);
GAUGEPOINT_SYNC_FIELD(payloadHash);
GAUGEPOINT_SYNC_FIELD(payloadOriginalBytes);
GAUGEPOINT_SYNC_FIELD(payloadStoredBytes);
GAUGEPOINT_SYNC_FIELD(createdAt);
GAUGEPOINT_SYNC_FIELD(sessionID);
GAUGEPOINT_SYNC_FIELD(rowID);
GAUGEPOINT_SYNC_FIELD(title);
GAUGEPOINT_SYNC_FIELD(providerID);
GAUGEPOINT_SYNC_FIELD(providerName);
GAUGEPOINT_SYNC_FIELD(projectPath);
GAUGEPOINT_SYNC_FIELD(startedAt);
GAUGEPOINT_SYNC_FIELD(endedAt);
GAUGEPOINT_SYNC_FIELD(updatedAt);
GAUGEPOINT_SYNC_FIELD(inputTokenCount);
GAUGEPOINT_SYNC_FIELD(outputTokenCount);
GAUGEPOINT_SYNC_FIELD(totalTokenCount);
GAUGEPOINT_SYNC_FIELD(totalCostUSD);
GAUGEPOINT_SYNC_FIELD(messageCount);
GAUGEPOINT_SYNC_FIELD(promptCount);
GAUGEPOINT_SYNC_FIELD(syncMode);
GAUGEPOINT_SYNC_FIELD(descriptorBlob);
GAUGEPOINT_SYNC_FIELD(descriptorEncoding);
GAUGEPOINT_SYNC_FIELD(descriptorHash);
GAUGEPOINT_SYNC_FIELD(descriptorOriginalBytes);
GAUGEPOINT_SYNC_FIELD(descriptorStoredBytes);
GAUGEPOINT_SYNC_FIELD(envelopeID);
GAUGEPOINT_SYNC_FIELD(sortKey);
GAUGEPOINT_SYNC_FIELD(targetFamily);
GAUGEPOINT_SYNC_FIELD(targetDeviceKey);
GAUGEPOINT_SYNC_FIELD(category);
GAUGEPOINT_SYNC_FIELD(level);
#undef GAUGEPOINT_SYNC_FIELD
}  // namespace Field

// ---- Record names and identifiers ----

// The record-name prefixes.
namespace Prefix {
inline constexpr std::string_view sourceDevice = "source";
inline constexpr std::string_view snapshotHot = "snapshot-hot";
inline constexpr std::string_view sessionDescriptor = "session";
inline constexpr std::string_view transcriptBundle = "transcript";
inline constexpr std::string_view notifyEvent = "notify";
}  // namespace Prefix

// prefix + ":" + the lowercase hexadecimal SHA-256 of the components, each trimmed of white
// space and line breaks, joined by U+001F. The prefix is not digested.
std::string recordName(std::string_view prefix, std::initializer_list<std::string_view> components);

// The zone privateZoneName owned by the current user.
QuotaCloudRecordZoneID zoneID();
QuotaCloudRecordID sourceDeviceRecordID(std::string_view sourceID);
QuotaCloudRecordID hotSnapshotRecordID(std::string_view sourceID);
QuotaCloudRecordID sessionDescriptorRecordID(std::string_view sourceID, std::string_view sessionID);
QuotaCloudRecordID transcriptBundleRecordID(std::string_view sourceID, std::string_view sessionID);
QuotaCloudRecordID notifyEventRecordID(std::string_view envelopeID);

// ---- Row IDs ----
// A session's row ID carries its source and session: the source ID with "%" written as "%25"
// and ":" as "%3A", then ":", then the session ID as it is ("mac-studio:4f1c..."). The first
// ":" ends the source, so any two texts make a row ID that gives them back.

std::string makeRowID(std::string_view sourceID, std::string_view sessionID);
// (sourceID, sessionID) of a row ID; none without a ":" or with a "%" in the source part that
// is not followed by two hexadecimal digits.
std::optional<std::pair<std::string, std::string>> parseRowID(std::string_view rowID);

// ---- Builders ----
// Builders that may fail throw QuotaSameAccountSyncV2RecordCodecError, QuotaCloudBlobCodecError
// or json::EncodingError (a value JSON cannot hold).

// The device record of the snapshot's source, last seen when the snapshot was generated; none
// when the snapshot carries no source.
std::optional<QuotaCloudRecord> makeSourceDeviceRecord(const QuotaSnapshot& snapshot, std::string_view syncEpoch,
                                                       const std::optional<std::string>& appVersion,
                                                       std::string_view deviceKind, bool isTombstoned);
QuotaCloudRecord makeSourceDeviceTombstoneRecord(std::string_view sourceID, std::string_view sourceName,
                                                 std::string_view syncEpoch, std::string_view deviceKind, Date updatedAt);

// The source's latest snapshot: source ID (the record's sourceID, else its id), device name
// (sourceName), host, platform, generation time, provider count, the record as payload, and
// the time it was received as updatedAt.
QuotaCloudRecord makeHotSnapshotRecord(const QuotaSourceSnapshotRecord& record, std::string_view syncEpoch);

// updatedAt is the transcript's update time, else the end, else the start of the session;
// totalTokenCount is the sum of the four token counts (left out in the unlikely case that it
// does not fit in 64 bits); totalCostUSD the cost the provider reported, when it did. syncMode
// is written "fullTranscript" for full transcripts and "promptsOnly" otherwise.
QuotaCloudRecord makeSessionDescriptorRecord(const QuotaSessionDescriptor& descriptor, std::string_view syncEpoch,
                                             bool isTombstoned);
// Throws invalidSessionDescriptorRowID when the row ID does not parse.
QuotaCloudRecord makeSessionDescriptorTombstoneRecord(std::string_view rowID, std::string_view syncEpoch,
                                                      Date updatedAt);
QuotaCloudRecord makeSessionDescriptorTombstoneRecord(std::string_view sourceID, std::string_view sessionID,
                                                      std::string_view rowID, std::string_view syncEpoch,
                                                      Date updatedAt);

// updatedAt is the export time; messageCount counts the messages and promptCount the user's.
QuotaCloudRecord makeTranscriptBundleRecord(const QuotaSessionTranscriptBundle& bundle, std::string_view syncEpoch,
                                            bool isTombstoned);
QuotaCloudRecord makeTranscriptBundleTombstoneRecord(std::string_view rowID, std::string_view syncEpoch,
                                                     Date updatedAt);
QuotaCloudRecord makeTranscriptBundleTombstoneRecord(std::string_view sourceID, std::string_view sessionID,
                                                     std::string_view rowID, std::string_view syncEpoch,
                                                     Date updatedAt);

// Throw emptyEnvelopeID, before anything is built, for an envelope ID that is empty or blank.
QuotaCloudRecord makeNotifyEventRecord(const QuotaNotifyEnvelope& envelope, std::string_view syncEpoch,
                                       bool isTombstoned);
QuotaCloudRecord makeNotifyEventTombstoneRecord(std::string_view envelopeID, std::string_view syncEpoch,
                                                Date createdAt, Date updatedAt);

// ---- Decoders ----
// Each checks the record type first (unexpectedRecordType), then undoes the payload (missing
// blob, decompression, hash, JSON), then reads the identity fields and lays them over the
// decoded value. Failures: QuotaSameAccountSyncV2RecordCodecError, QuotaCloudBlobCodecError,
// json::DecodingError. The fields each decoder needs are those missingRequiredFields names.

QuotaSameAccountSyncV2SourceDevice decodeSourceDevice(const QuotaCloudRecord& record);
// The record with sourceID, sourceName (from deviceName), hostName and platformLabel taken from
// the record's fields where it has them.
QuotaSameAccountSyncV2DecodedHotSnapshot decodeHotSnapshot(const QuotaCloudRecord& record);
// The descriptor with sourceID and id taken from the record's sourceID and sessionID.
QuotaSameAccountSyncV2DecodedSessionDescriptor decodeSessionDescriptor(const QuotaCloudRecord& record);
// The bundle with sourceID, id and sourceName taken from sourceID, sessionID and deviceName.
QuotaSameAccountSyncV2DecodedTranscriptBundle decodeTranscriptBundle(const QuotaCloudRecord& record);
// The envelope with envelopeID taken from the record's field.
QuotaSameAccountSyncV2DecodedNotifyEvent decodeNotifyEvent(const QuotaCloudRecord& record);

// The row ID or envelope ID a deletion names. A deletion without a syncEpoch is refused too
// (missingField), since it cannot be told to belong to the current epoch.
std::string decodeSessionDescriptorTombstoneRowID(const QuotaCloudRecord& record);
std::string decodeTranscriptBundleTombstoneRowID(const QuotaCloudRecord& record);
std::string decodeNotifyEventTombstoneEnvelopeID(const QuotaCloudRecord& record);

// Whether the record is a deletion: isTombstoned holds a non-zero integer.
bool isTombstone(const QuotaCloudRecord& record);

// The required fields the record lacks (or holds with the wrong value type), in write order.
// Always syncEpoch; then per type: GpSourceDevice sourceID, deviceKind, lastSeenAt;
// GpSnapshotHot sourceID, payloadBlob, payloadHash; GpSessionDescriptor sourceID, sessionID,
// descriptorBlob, descriptorHash; GpTranscriptBundle sourceID, sessionID, payloadBlob,
// payloadHash; GpNotifyEvent envelopeID, payloadBlob, payloadHash. A deletion of a session,
// transcript or notify event needs only its rowID or envelopeID beside syncEpoch. A record of
// any other type needs syncEpoch alone.
std::vector<std::string> missingRequiredFields(const QuotaCloudRecord& record);

}  // namespace QuotaSameAccountSyncV2RecordCodec
}  // namespace gaugepoint
