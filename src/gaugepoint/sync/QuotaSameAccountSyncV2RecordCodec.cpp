#include "gaugepoint/sync/QuotaSameAccountSyncV2RecordCodec.hpp"

#include <algorithm>

#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/sync/QuotaCloudBlobCodec.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"

namespace gaugepoint {

using CodecError = QuotaSameAccountSyncV2RecordCodecError;

CodecError CodecError::unexpectedRecordType(std::string_view expected, std::string_view actual) {
    return {Kind::unexpectedRecordType, std::string(expected), std::string(actual),
            "Unexpected CloudKit record type: expected " + std::string(expected) + ", got " + std::string(actual) + "."};
}

CodecError CodecError::missingField(std::string_view field) {
    return {Kind::missingField, std::string(field), {}, "Missing CloudKit record field: " + std::string(field) + "."};
}

CodecError CodecError::hashMismatch(std::string_view field) {
    return {Kind::hashMismatch, std::string(field), {},
            "CloudKit record hash mismatch for field: " + std::string(field) + "."};
}

CodecError CodecError::invalidSessionDescriptorRowID(std::string_view rowID) {
    return {Kind::invalidSessionDescriptorRowID, std::string(rowID), {},
            "Invalid same-account session descriptor rowID: " + std::string(rowID) + "."};
}

CodecError CodecError::emptyEnvelopeID() {
    return {Kind::emptyEnvelopeID, {}, {}, "Cannot encode a notify event with an empty envelope ID."};
}

namespace QuotaSameAccountSyncV2RecordCodec {
namespace {

namespace V2 = QuotaSameAccountSyncV2;
namespace RecordType = QuotaSameAccountSyncV2::RecordType;

// The five fields of one stored payload.
struct PayloadFields {
    std::string_view blob, encoding, hash, originalBytes, storedBytes;
};
constexpr PayloadFields kPayload{Field::payloadBlob, Field::payloadEncoding, Field::payloadHash,
                                 Field::payloadOriginalBytes, Field::payloadStoredBytes};
constexpr PayloadFields kDescriptor{Field::descriptorBlob, Field::descriptorEncoding, Field::descriptorHash,
                                    Field::descriptorOriginalBytes, Field::descriptorStoredBytes};

// A record of `type` with its identifier, schemaVersion and syncEpoch written.
QuotaCloudRecord begin(std::string_view type, QuotaCloudRecordID id, std::string_view syncEpoch) {
    QuotaCloudRecord record{std::string(type), std::move(id), {}};
    record.set(Field::schemaVersion, V2::schemaVersion);
    record.set(Field::syncEpoch, std::string(syncEpoch));
    return record;
}

template <class T>
void setIf(QuotaCloudRecord& record, std::string_view key, const std::optional<T>& value) {
    if (value) record.set(key, *value);
}

void setText(QuotaCloudRecord& record, std::string_view key, std::string_view text) {
    record.set(key, std::string(text));
}

void setFlag(QuotaCloudRecord& record, bool isTombstoned) {
    record.set(Field::isTombstoned, std::int64_t{isTombstoned ? 1 : 0});
}

// The JSON of `value` stored as the record's payload, with the SHA-256 of the JSON.
template <class T>
void setPayload(QuotaCloudRecord& record, const PayloadFields& fields, const T& value) {
    const std::string payload = json::encode(value);
    auto blob = QuotaCloudBlobCodec::encode(payload);
    record.set(fields.blob, std::move(blob.data));
    setText(record, fields.encoding, json::rawValue(blob.encoding));
    record.set(fields.hash, sha256Hex(payload));
    record.set(fields.originalBytes, blob.originalBytes);
    record.set(fields.storedBytes, blob.storedBytes);
}

std::string_view syncModeText(QuotaSessionSyncMode mode) {
    return mode == QuotaSessionSyncMode::fullTranscript ? "fullTranscript" : "promptsOnly";
}

std::optional<std::int64_t> totalTokens(const QuotaSessionTokenUsage& usage) {
    std::int64_t total = 0;
    for (const std::int64_t count : {usage.inputTokens, usage.outputTokens, usage.cacheReadTokens, usage.cacheWriteTokens}) {
        if (__builtin_add_overflow(total, count, &total)) return std::nullopt;
    }
    return total;
}

// ---- reading ----

void expectType(const QuotaCloudRecord& record, std::string_view expected) {
    if (record.recordType != expected) throw CodecError::unexpectedRecordType(expected, record.recordType);
}

template <class T>
const T& required(const QuotaCloudRecord& record, std::string_view key) {
    if (const T* value = record.get<T>(key)) return *value;
    throw CodecError::missingField(key);
}

const std::string& requiredText(const QuotaCloudRecord& record, std::string_view key) {
    return required<std::string>(record, key);
}

std::optional<std::string> optionalText(const QuotaCloudRecord& record, std::string_view key) {
    if (const auto* text = record.get<std::string>(key)) return *text;
    return std::nullopt;
}

// The payload's value: blob, decoding, hash, JSON, in that order.
template <class T>
T decodePayload(const QuotaCloudRecord& record, const PayloadFields& fields) {
    const auto& blob = required<QuotaCloudRecordBytes>(record, fields.blob);
    const auto* encoding = record.get<std::string>(fields.encoding);
    const auto payload = QuotaCloudBlobCodec::decodeData(
        blob, encoding ? std::optional<std::string_view>(*encoding) : std::nullopt);
    const auto& hash = requiredText(record, fields.hash);
    if (hash != sha256Hex(payload)) throw CodecError::hashMismatch(fields.hash);
    return json::decode<T>(std::string_view(reinterpret_cast<const char*>(payload.data()), payload.size()));
}

std::pair<std::string, std::string> rowIDParts(std::string_view rowID) {
    auto parts = parseRowID(rowID);
    if (!parts) throw CodecError::invalidSessionDescriptorRowID(rowID);
    return std::move(*parts);
}

// The deletion of a session's descriptor or transcript: the same name as the live record.
QuotaCloudRecord sessionTombstone(std::string_view type, QuotaCloudRecordID id, std::string_view sourceID,
                                  std::string_view sessionID, std::string_view rowID, std::string_view syncEpoch,
                                  Date updatedAt) {
    auto record = begin(type, std::move(id), syncEpoch);
    setText(record, Field::sourceID, sourceID);
    setText(record, Field::sessionID, sessionID);
    setText(record, Field::rowID, rowID);
    setFlag(record, true);
    record.set(Field::updatedAt, updatedAt);
    return record;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string recordName(std::string_view prefix, std::initializer_list<std::string_view> components) {
    constexpr char unitSeparator = '\x1f';
    std::string joined;
    bool first = true;
    for (const std::string_view component : components) {
        if (!first) joined.push_back(unitSeparator);
        first = false;
        joined.append(trimmed(component));
    }
    return std::string(prefix) + ":" + sha256Hex(joined);
}

QuotaCloudRecordZoneID zoneID() { return {std::string(V2::privateZoneName), std::string(QuotaCloudRecordZoneID::currentUserOwnerName)}; }

QuotaCloudRecordID sourceDeviceRecordID(std::string_view sourceID) {
    return {recordName(Prefix::sourceDevice, {sourceID}), zoneID()};
}

QuotaCloudRecordID hotSnapshotRecordID(std::string_view sourceID) {
    return {recordName(Prefix::snapshotHot, {sourceID}), zoneID()};
}

QuotaCloudRecordID sessionDescriptorRecordID(std::string_view sourceID, std::string_view sessionID) {
    return {recordName(Prefix::sessionDescriptor, {sourceID, sessionID}), zoneID()};
}

QuotaCloudRecordID transcriptBundleRecordID(std::string_view sourceID, std::string_view sessionID) {
    return {recordName(Prefix::transcriptBundle, {sourceID, sessionID}), zoneID()};
}

QuotaCloudRecordID notifyEventRecordID(std::string_view envelopeID) {
    return {recordName(Prefix::notifyEvent, {envelopeID}), zoneID()};
}

std::string makeRowID(std::string_view sourceID, std::string_view sessionID) {
    std::string rowID;
    rowID.reserve(sourceID.size() + sessionID.size() + 1);
    for (const char c : sourceID) {
        if (c == '%') {
            rowID += "%25";
        } else if (c == ':') {
            rowID += "%3A";
        } else {
            rowID.push_back(c);
        }
    }
    rowID.push_back(':');
    rowID.append(sessionID);
    return rowID;
}

std::optional<std::pair<std::string, std::string>> parseRowID(std::string_view rowID) {
    const std::size_t colon = rowID.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string sourceID;
    for (std::size_t i = 0; i < colon; ++i) {
        if (rowID[i] != '%') {
            sourceID.push_back(rowID[i]);
            continue;
        }
        if (i + 2 >= colon) return std::nullopt;
        const int high = hexDigit(rowID[i + 1]), low = hexDigit(rowID[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        sourceID.push_back(char(high * 16 + low));
        i += 2;
    }
    return std::pair{std::move(sourceID), std::string(rowID.substr(colon + 1))};
}

// ---- builders ----

std::optional<QuotaCloudRecord> makeSourceDeviceRecord(const QuotaSnapshot& snapshot, std::string_view syncEpoch,
                                                       const std::optional<std::string>& appVersion,
                                                       std::string_view deviceKind, bool isTombstoned) {
    if (!snapshot.source) return std::nullopt;
    const auto& source = *snapshot.source;
    auto record = begin(RecordType::sourceDevice, sourceDeviceRecordID(source.sourceID), syncEpoch);
    setText(record, Field::sourceID, source.sourceID);
    setText(record, Field::deviceName, source.sourceName);
    setText(record, Field::deviceKind, deviceKind);
    setText(record, Field::hostName, source.hostName);
    setText(record, Field::platformLabel, source.platformLabel);
    setIf(record, Field::appVersion, appVersion);
    record.set(Field::lastSeenAt, snapshot.generatedAt);
    setFlag(record, isTombstoned);
    return record;
}

QuotaCloudRecord makeSourceDeviceTombstoneRecord(std::string_view sourceID, std::string_view sourceName,
                                                 std::string_view syncEpoch, std::string_view deviceKind,
                                                 Date updatedAt) {
    auto record = begin(RecordType::sourceDevice, sourceDeviceRecordID(sourceID), syncEpoch);
    setText(record, Field::sourceID, sourceID);
    setText(record, Field::deviceName, sourceName);
    setText(record, Field::deviceKind, deviceKind);
    record.set(Field::lastSeenAt, updatedAt);
    setFlag(record, true);
    return record;
}

QuotaCloudRecord makeHotSnapshotRecord(const QuotaSourceSnapshotRecord& source, std::string_view syncEpoch) {
    const std::string& sourceID = source.sourceID ? *source.sourceID : source.id;
    auto record = begin(RecordType::snapshotHot, hotSnapshotRecordID(sourceID), syncEpoch);
    setText(record, Field::sourceID, sourceID);
    setText(record, Field::deviceName, source.sourceName);
    setIf(record, Field::hostName, source.hostName);
    setIf(record, Field::platformLabel, source.platformLabel);
    record.set(Field::snapshotGeneratedAt, source.snapshot.generatedAt);
    record.set(Field::providerCount, std::int64_t(source.snapshot.providers.size()));
    setPayload(record, kPayload, source);
    record.set(Field::updatedAt, source.receivedAt);
    return record;
}

QuotaCloudRecord makeSessionDescriptorRecord(const QuotaSessionDescriptor& descriptor, std::string_view syncEpoch,
                                             bool isTombstoned) {
    auto record = begin(RecordType::sessionDescriptor,
                        sessionDescriptorRecordID(descriptor.sourceID, descriptor.id), syncEpoch);
    setText(record, Field::sourceID, descriptor.sourceID);
    setText(record, Field::sessionID, descriptor.id);
    record.set(Field::rowID, makeRowID(descriptor.sourceID, descriptor.id));
    setText(record, Field::title, descriptor.title);
    setText(record, Field::providerID, descriptor.provider.id);
    setText(record, Field::providerName, descriptor.provider.displayName);
    setIf(record, Field::projectPath, descriptor.projectPath);
    setIf(record, Field::startedAt, descriptor.startedAt);
    setIf(record, Field::endedAt, descriptor.endedAt);
    setIf(record, Field::updatedAt,
          descriptor.transcriptUpdatedAt ? descriptor.transcriptUpdatedAt
          : descriptor.endedAt           ? descriptor.endedAt
                                         : descriptor.startedAt);
    record.set(Field::inputTokenCount, descriptor.tokenUsage.inputTokens);
    record.set(Field::outputTokenCount, descriptor.tokenUsage.outputTokens);
    setIf(record, Field::totalTokenCount, totalTokens(descriptor.tokenUsage));
    setIf(record, Field::totalCostUSD, descriptor.tokenUsage.exactCostUSD);
    record.set(Field::messageCount, descriptor.messageCount);
    record.set(Field::promptCount, descriptor.promptCount);
    setText(record, Field::syncMode, syncModeText(descriptor.syncMode));
    setFlag(record, isTombstoned);
    setPayload(record, kDescriptor, descriptor);
    return record;
}

QuotaCloudRecord makeSessionDescriptorTombstoneRecord(std::string_view rowID, std::string_view syncEpoch,
                                                      Date updatedAt) {
    const auto [sourceID, sessionID] = rowIDParts(rowID);
    return makeSessionDescriptorTombstoneRecord(sourceID, sessionID, rowID, syncEpoch, updatedAt);
}

QuotaCloudRecord makeSessionDescriptorTombstoneRecord(std::string_view sourceID, std::string_view sessionID,
                                                      std::string_view rowID, std::string_view syncEpoch,
                                                      Date updatedAt) {
    return sessionTombstone(RecordType::sessionDescriptor, sessionDescriptorRecordID(sourceID, sessionID), sourceID,
                            sessionID, rowID, syncEpoch, updatedAt);
}

QuotaCloudRecord makeTranscriptBundleRecord(const QuotaSessionTranscriptBundle& bundle, std::string_view syncEpoch,
                                            bool isTombstoned) {
    auto record = begin(RecordType::transcriptBundle, transcriptBundleRecordID(bundle.sourceID, bundle.id), syncEpoch);
    setText(record, Field::sourceID, bundle.sourceID);
    setText(record, Field::sessionID, bundle.id);
    record.set(Field::rowID, makeRowID(bundle.sourceID, bundle.id));
    setText(record, Field::deviceName, bundle.sourceName);
    setText(record, Field::title, bundle.sessionTitle);
    setText(record, Field::providerID, bundle.provider.id);
    setText(record, Field::providerName, bundle.provider.displayName);
    setIf(record, Field::projectPath, bundle.projectPath);
    record.set(Field::updatedAt, bundle.exportedAt);
    record.set(Field::messageCount, std::int64_t(bundle.messages.size()));
    record.set(Field::promptCount, std::int64_t(std::count_if(bundle.messages.begin(), bundle.messages.end(), [](const auto& m) {
                   return m.role == QuotaSessionRole::user;
               })));
    setText(record, Field::syncMode, syncModeText(bundle.syncMode));
    setFlag(record, isTombstoned);
    setPayload(record, kPayload, bundle);
    return record;
}

QuotaCloudRecord makeTranscriptBundleTombstoneRecord(std::string_view rowID, std::string_view syncEpoch,
                                                     Date updatedAt) {
    const auto [sourceID, sessionID] = rowIDParts(rowID);
    return makeTranscriptBundleTombstoneRecord(sourceID, sessionID, rowID, syncEpoch, updatedAt);
}

QuotaCloudRecord makeTranscriptBundleTombstoneRecord(std::string_view sourceID, std::string_view sessionID,
                                                     std::string_view rowID, std::string_view syncEpoch,
                                                     Date updatedAt) {
    return sessionTombstone(RecordType::transcriptBundle, transcriptBundleRecordID(sourceID, sessionID), sourceID,
                            sessionID, rowID, syncEpoch, updatedAt);
}

QuotaCloudRecord makeNotifyEventRecord(const QuotaNotifyEnvelope& envelope, std::string_view syncEpoch,
                                       bool isTombstoned) {
    // A blank ID names the same record as the empty one, since record names are trimmed.
    if (trimmed(envelope.envelopeID).empty()) throw CodecError::emptyEnvelopeID();
    auto record = begin(RecordType::notifyEvent, notifyEventRecordID(envelope.envelopeID), syncEpoch);
    setText(record, Field::envelopeID, envelope.envelopeID);
    record.set(Field::createdAt, envelope.createdAt);
    record.set(Field::updatedAt, envelope.updatedAt);
    record.set(Field::sortKey, envelope.sortKey());
    setText(record, Field::targetFamily, envelope.targetFamily);
    setIf(record, Field::targetDeviceKey, envelope.targetDeviceKey);
    setText(record, Field::title, envelope.title);
    setText(record, Field::sourceID, envelope.sourceID);
    setIf(record, Field::deviceName, envelope.deviceName);
    setIf(record, Field::providerID, envelope.providerID);
    setIf(record, Field::providerName, envelope.providerName);
    setText(record, Field::category, envelope.category);
    setText(record, Field::level, envelope.level);
    setFlag(record, isTombstoned);
    setPayload(record, kPayload, envelope);
    return record;
}

QuotaCloudRecord makeNotifyEventTombstoneRecord(std::string_view envelopeID, std::string_view syncEpoch,
                                                Date createdAt, Date updatedAt) {
    if (trimmed(envelopeID).empty()) throw CodecError::emptyEnvelopeID();
    auto record = begin(RecordType::notifyEvent, notifyEventRecordID(envelopeID), syncEpoch);
    setText(record, Field::envelopeID, envelopeID);
    record.set(Field::createdAt, createdAt);
    record.set(Field::updatedAt, updatedAt);
    record.set(Field::sortKey, QuotaNotifyEnvelope::makeSortKey(createdAt, envelopeID));
    setFlag(record, true);
    return record;
}

// ---- decoders ----

bool isTombstone(const QuotaCloudRecord& record) {
    const auto* flag = record.get<std::int64_t>(Field::isTombstoned);
    return flag && *flag != 0;
}

QuotaSameAccountSyncV2SourceDevice decodeSourceDevice(const QuotaCloudRecord& record) {
    expectType(record, RecordType::sourceDevice);
    QuotaSameAccountSyncV2SourceDevice device;
    device.syncEpoch = requiredText(record, Field::syncEpoch);
    device.sourceID = requiredText(record, Field::sourceID);
    device.deviceName = optionalText(record, Field::deviceName);
    device.hostName = optionalText(record, Field::hostName);
    device.platformLabel = optionalText(record, Field::platformLabel);
    device.deviceKind = requiredText(record, Field::deviceKind);
    device.appVersion = optionalText(record, Field::appVersion);
    device.lastSeenAt = required<Date>(record, Field::lastSeenAt);
    device.isTombstoned = isTombstone(record);
    return device;
}

QuotaSameAccountSyncV2DecodedHotSnapshot decodeHotSnapshot(const QuotaCloudRecord& record) {
    expectType(record, RecordType::snapshotHot);
    auto source = decodePayload<QuotaSourceSnapshotRecord>(record, kPayload);
    std::string syncEpoch = requiredText(record, Field::syncEpoch);
    source.sourceID = requiredText(record, Field::sourceID);
    if (auto name = optionalText(record, Field::deviceName)) source.sourceName = std::move(*name);
    if (auto host = optionalText(record, Field::hostName)) source.hostName = std::move(host);
    if (auto label = optionalText(record, Field::platformLabel)) source.platformLabel = std::move(label);
    return {std::move(syncEpoch), std::move(source)};
}

QuotaSameAccountSyncV2DecodedSessionDescriptor decodeSessionDescriptor(const QuotaCloudRecord& record) {
    expectType(record, RecordType::sessionDescriptor);
    auto descriptor = decodePayload<QuotaSessionDescriptor>(record, kDescriptor);
    std::string syncEpoch = requiredText(record, Field::syncEpoch);
    descriptor.sourceID = requiredText(record, Field::sourceID);
    descriptor.id = requiredText(record, Field::sessionID);
    return {std::move(syncEpoch), std::move(descriptor)};
}

QuotaSameAccountSyncV2DecodedTranscriptBundle decodeTranscriptBundle(const QuotaCloudRecord& record) {
    expectType(record, RecordType::transcriptBundle);
    auto bundle = decodePayload<QuotaSessionTranscriptBundle>(record, kPayload);
    std::string syncEpoch = requiredText(record, Field::syncEpoch);
    bundle.sourceID = requiredText(record, Field::sourceID);
    bundle.id = requiredText(record, Field::sessionID);
    if (auto name = optionalText(record, Field::deviceName)) bundle.sourceName = std::move(*name);
    return {std::move(syncEpoch), std::move(bundle)};
}

QuotaSameAccountSyncV2DecodedNotifyEvent decodeNotifyEvent(const QuotaCloudRecord& record) {
    expectType(record, RecordType::notifyEvent);
    auto envelope = decodePayload<QuotaNotifyEnvelope>(record, kPayload);
    std::string syncEpoch = requiredText(record, Field::syncEpoch);
    envelope.envelopeID = requiredText(record, Field::envelopeID);
    return {std::move(syncEpoch), std::move(envelope)};
}

std::string decodeSessionDescriptorTombstoneRowID(const QuotaCloudRecord& record) {
    expectType(record, RecordType::sessionDescriptor);
    requiredText(record, Field::syncEpoch);
    return requiredText(record, Field::rowID);
}

std::string decodeTranscriptBundleTombstoneRowID(const QuotaCloudRecord& record) {
    expectType(record, RecordType::transcriptBundle);
    requiredText(record, Field::syncEpoch);
    return requiredText(record, Field::rowID);
}

std::string decodeNotifyEventTombstoneEnvelopeID(const QuotaCloudRecord& record) {
    expectType(record, RecordType::notifyEvent);
    requiredText(record, Field::syncEpoch);
    return requiredText(record, Field::envelopeID);
}

std::vector<std::string> missingRequiredFields(const QuotaCloudRecord& record) {
    struct Required {
        std::string_view key;
        std::size_t typeIndex;  // the QuotaCloudRecordValue alternative the field must hold
    };
    constexpr std::size_t text = 2, date = 3, bytes = 4;
    std::vector<Required> required{{Field::syncEpoch, text}};
    const auto& type = record.recordType;
    const bool tombstone = isTombstone(record);
    const auto add = [&](std::initializer_list<Required> more) { required.insert(required.end(), more); };
    if (type == RecordType::sourceDevice) {
        add({{Field::sourceID, text}, {Field::deviceKind, text}, {Field::lastSeenAt, date}});
    } else if (type == RecordType::snapshotHot) {
        add({{Field::sourceID, text}, {Field::payloadBlob, bytes}, {Field::payloadHash, text}});
    } else if (type == RecordType::sessionDescriptor || type == RecordType::transcriptBundle) {
        const auto& payload = type == RecordType::sessionDescriptor ? kDescriptor : kPayload;
        if (tombstone) {
            add({{Field::rowID, text}});
        } else {
            add({{Field::sourceID, text}, {Field::sessionID, text}, {payload.blob, bytes}, {payload.hash, text}});
        }
    } else if (type == RecordType::notifyEvent) {
        add({{Field::envelopeID, text}});
        if (!tombstone) add({{Field::payloadBlob, bytes}, {Field::payloadHash, text}});
    }
    std::vector<std::string> missing;
    for (const auto& field : required) {
        const QuotaCloudRecordValue* value = record.value(field.key);
        if (!value || value->index() != field.typeIndex) missing.emplace_back(field.key);
    }
    return missing;
}

}  // namespace QuotaSameAccountSyncV2RecordCodec
}  // namespace gaugepoint
