#include <gtest/gtest.h>

#include <functional>

#include "SyncTestSupport.hpp"
#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/sync/QuotaCloudBlobCodec.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2RecordCodec.hpp"

namespace gaugepoint {
namespace {

namespace Codec = QuotaSameAccountSyncV2RecordCodec;
using CodecError = QuotaSameAccountSyncV2RecordCodecError;
using testing::at;

constexpr std::string_view kEpoch = "v2-1795252740000-1b4e28ba-2fa1-41d2-883f-0016d3cca427";

std::vector<std::string> keys(const QuotaCloudRecord& record) {
    std::vector<std::string> list;
    for (const auto& field : record.fields) list.push_back(field.key);
    return list;
}

// Runs `decode` and returns the codec error it throws; fails the test when it throws none.
std::optional<CodecError> codecError(const std::function<void()>& decode) {
    try {
        decode();
    } catch (const CodecError& e) {
        return e;
    }
    ADD_FAILURE() << "no codec error";
    return std::nullopt;
}

TEST(SameAccountRecordNames, AreThePrefixAndTheDigestOfTheTrimmedComponents) {
    const auto session = Codec::sessionDescriptorRecordID("workstation", "ccd55d3f-40dc-4663-a6b9-e07bb0a68984");
    EXPECT_EQ(session.recordName, "session:5f8272af5ae417a1b1d7175dc30dec0fde0415b6a80c93a6d07606fa15244709");
    EXPECT_EQ(session.zoneID.zoneName, "GaugepointSameAccountV2");
    EXPECT_EQ(session.zoneID.ownerName, "__defaultOwner__");
    EXPECT_EQ(Codec::sourceDeviceRecordID("workstation").recordName,
              "source:d195d36bd79da7df853b78f0b539b75f002819330c13b6438bbbe89a8f4f267a");
    // Blanks, line breaks and no-break spaces around an identifier do not change the name.
    EXPECT_EQ(Codec::sessionDescriptorRecordID(" \tworkstation\n", "\u00a0ccd55d3f-40dc-4663-a6b9-e07bb0a68984\r\n"),
              session);
    // One source or session: the kinds share the digest and differ by prefix.
    const auto transcript = Codec::transcriptBundleRecordID("workstation", "ccd55d3f-40dc-4663-a6b9-e07bb0a68984");
    EXPECT_EQ(transcript.recordName.substr(transcript.recordName.find(':')), session.recordName.substr(7));
    EXPECT_EQ(transcript.recordName.substr(0, 11), "transcript:");
    const auto hot = Codec::hotSnapshotRecordID("workstation").recordName;
    EXPECT_EQ(hot, "snapshot-hot:" + Codec::sourceDeviceRecordID("workstation").recordName.substr(7));
    EXPECT_EQ(Codec::notifyEventRecordID("env-42").recordName.substr(0, 7), "notify:");
    // The separator keeps ("ab", "c") and ("a", "bc") apart.
    EXPECT_NE(Codec::sessionDescriptorRecordID("ab", "c"), Codec::sessionDescriptorRecordID("a", "bc"));
}

TEST(SameAccountRowIDs, CarrySourceAndSessionWhateverTheyContain) {
    EXPECT_EQ(Codec::makeRowID("mac-studio", "s-1"), "mac-studio:s-1");
    EXPECT_EQ(Codec::makeRowID("a:b%", "c:d"), "a%3Ab%25:c:d");
    const std::vector<std::pair<std::string, std::string>> pairs{
        {"mac-studio", "s-1"}, {"a:b", "c:d"}, {"%3A", "%"}, {"", ""}, {"::", ":"}, {"100%", "%25"}, {"机器", "会话"},
        {" padded ", "\n"}};
    for (const auto& pair : pairs) {
        EXPECT_EQ(Codec::parseRowID(Codec::makeRowID(pair.first, pair.second)), pair) << pair.first << " " << pair.second;
    }
    using Parts = std::pair<std::string, std::string>;
    EXPECT_EQ(Codec::parseRowID("a%3ab:c"), Parts("a:b", "c"));  // either hex case
    for (std::string_view bad : {"no-colon", "%:x", "%3:x", "%zz:x", "ab%4"}) EXPECT_FALSE(Codec::parseRowID(bad)) << bad;

    // The deletion made from a row ID is the one made from its parts, under the live record's name.
    const std::string rowID = Codec::makeRowID("a:b", "s-1");
    const Date when = at("2026-11-21T10:00:00Z");
    EXPECT_EQ(Codec::makeSessionDescriptorTombstoneRecord(rowID, kEpoch, when),
              Codec::makeSessionDescriptorTombstoneRecord("a:b", "s-1", rowID, kEpoch, when));
    EXPECT_EQ(Codec::makeTranscriptBundleTombstoneRecord(rowID, kEpoch, when).recordID,
              Codec::transcriptBundleRecordID("a:b", "s-1"));
    const auto invalid = codecError([&] { Codec::makeTranscriptBundleTombstoneRecord("nothing", kEpoch, when); });
    ASSERT_TRUE(invalid);
    EXPECT_STREQ(invalid->what(), "Invalid same-account session descriptor rowID: nothing.");
}

TEST(SameAccountRecordCodec, EveryBuilderWritesItsFieldsInOrderAndLeavesAbsentOnesOut) {
    const Date when = at("2026-11-21T10:00:00Z");
    QuotaSessionDescriptor bare = testing::sampleDescriptor();
    bare.projectPath.reset();
    bare.startedAt.reset();
    bare.endedAt.reset();
    bare.tokenUsage.exactCostUSD.reset();
    bare.syncMode = QuotaSessionSyncMode::lite;
    const std::vector<std::string> payload{"payloadBlob", "payloadEncoding", "payloadHash", "payloadOriginalBytes",
                                           "payloadStoredBytes"};
    const auto with = [](std::vector<std::string> head, const std::vector<std::string>& tail) {
        head.insert(head.begin(), {"schemaVersion", "syncEpoch"});
        head.insert(head.end(), tail.begin(), tail.end());
        return head;
    };
    const struct {
        QuotaCloudRecord record;
        std::vector<std::string> keys;
    } cases[] = {
        {*Codec::makeSourceDeviceRecord(testing::sampleSnapshot(), kEpoch, "1.4.0", "mac", false),
         with({"sourceID", "deviceName", "deviceKind", "hostName", "platformLabel", "appVersion", "lastSeenAt",
               "isTombstoned"}, {})},
        {Codec::makeSourceDeviceTombstoneRecord("mac-studio", "Studio", kEpoch, "mac", when),
         with({"sourceID", "deviceName", "deviceKind", "lastSeenAt", "isTombstoned"}, {})},
        {Codec::makeHotSnapshotRecord(testing::sampleSourceRecord(), kEpoch),
         with({"sourceID", "deviceName", "hostName", "platformLabel", "snapshotGeneratedAt", "providerCount"},
              {"payloadBlob", "payloadEncoding", "payloadHash", "payloadOriginalBytes", "payloadStoredBytes",
               "updatedAt"})},
        {Codec::makeSessionDescriptorRecord(testing::sampleDescriptor(), kEpoch, false),
         with({"sourceID", "sessionID", "rowID", "title", "providerID", "providerName", "projectPath", "startedAt",
               "endedAt", "updatedAt", "inputTokenCount", "outputTokenCount", "totalTokenCount", "totalCostUSD",
               "messageCount", "promptCount", "syncMode", "isTombstoned", "descriptorBlob", "descriptorEncoding",
               "descriptorHash", "descriptorOriginalBytes", "descriptorStoredBytes"},
              {})},
        {Codec::makeSessionDescriptorRecord(bare, kEpoch, false),
         with({"sourceID", "sessionID", "rowID", "title", "providerID", "providerName", "inputTokenCount",
               "outputTokenCount", "totalTokenCount", "messageCount", "promptCount", "syncMode", "isTombstoned",
               "descriptorBlob", "descriptorEncoding", "descriptorHash", "descriptorOriginalBytes",
               "descriptorStoredBytes"},
              {})},
        {Codec::makeSessionDescriptorTombstoneRecord("w:s", kEpoch, when),
         with({"sourceID", "sessionID", "rowID", "isTombstoned", "updatedAt"}, {})},
        {Codec::makeTranscriptBundleRecord(testing::sampleBundle(3), kEpoch, false),
         with({"sourceID", "sessionID", "rowID", "deviceName", "title", "providerID", "providerName", "updatedAt",
               "messageCount", "promptCount", "syncMode", "isTombstoned"},
              payload)},
        {Codec::makeTranscriptBundleTombstoneRecord("w:s", kEpoch, when),
         with({"sourceID", "sessionID", "rowID", "isTombstoned", "updatedAt"}, {})},
        {Codec::makeNotifyEventRecord(testing::sampleEnvelope(), kEpoch, false),
         with({"envelopeID", "createdAt", "updatedAt", "sortKey", "targetFamily", "targetDeviceKey", "title",
               "sourceID", "deviceName", "providerID", "providerName", "category", "level", "isTombstoned"},
              payload)},
        {Codec::makeNotifyEventTombstoneRecord("env-42", kEpoch, when, when),
         with({"envelopeID", "createdAt", "updatedAt", "sortKey", "isTombstoned"}, {})},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(keys(c.record), c.keys) << c.record.recordType;
        EXPECT_EQ(*c.record.get<std::int64_t>("schemaVersion"), 2);
        EXPECT_EQ(*c.record.get<std::string>("syncEpoch"), kEpoch);
    }

    // Values that are derived rather than copied.
    const auto& session = cases[3].record;
    EXPECT_EQ(*session.get<Date>("updatedAt"), at("2026-11-20T10:47:31Z"));  // the end, without a transcript time
    EXPECT_EQ(*session.get<std::int64_t>("totalTokenCount"), 1894 + 41230 + 3810442 + 212906);
    EXPECT_EQ(*session.get<double>("totalCostUSD"), 1.25);
    EXPECT_EQ(*session.get<std::string>("syncMode"), "fullTranscript");
    EXPECT_EQ(*cases[4].record.get<std::string>("syncMode"), "promptsOnly");
    EXPECT_EQ(*cases[6].record.get<std::string>("syncMode"), "promptsOnly");
    EXPECT_EQ(*cases[6].record.get<std::int64_t>("promptCount"), 2);
    EXPECT_EQ(*cases[2].record.get<std::int64_t>("providerCount"), 2);
    EXPECT_EQ(*cases[8].record.get<std::string>("sortKey"), "0001795253400250-env-42");
    EXPECT_EQ(*cases[9].record.get<std::string>("sortKey"), QuotaNotifyEnvelope::makeSortKey(when, "env-42"));
    EXPECT_EQ(*cases[9].record.get<std::int64_t>("isTombstoned"), 1);
    EXPECT_FALSE(Codec::makeSourceDeviceRecord(QuotaSnapshot{}, kEpoch, std::nullopt, "mac", false));
}

TEST(SameAccountRecordCodec, PayloadsKeepTheBlobCodecsCountsAndTheHashOfTheJson) {
    const auto small = Codec::makeSessionDescriptorRecord(testing::sampleDescriptor(), kEpoch, false);
    const std::string json = json::encode(testing::sampleDescriptor());
    ASSERT_LT(json.size(), 1024u);
    EXPECT_EQ(*small.get<std::string>("descriptorEncoding"), "plain");
    EXPECT_EQ(*small.get<QuotaCloudRecordBytes>("descriptorBlob"), QuotaCloudRecordBytes(json.begin(), json.end()));
    EXPECT_EQ(*small.get<std::int64_t>("descriptorOriginalBytes"), std::int64_t(json.size()));
    EXPECT_EQ(*small.get<std::int64_t>("descriptorStoredBytes"), std::int64_t(json.size()));
    EXPECT_EQ(*small.get<std::string>("descriptorHash"), sha256Hex(json));

    const auto bundle = testing::sampleBundle(400);
    const auto large = Codec::makeTranscriptBundleRecord(bundle, kEpoch, false);
    EXPECT_EQ(*large.get<std::string>("payloadEncoding"), "lzfse");
    EXPECT_EQ(*large.get<std::string>("payloadHash"), sha256Hex(json::encode(bundle)));
    EXPECT_LT(*large.get<std::int64_t>("payloadStoredBytes"), *large.get<std::int64_t>("payloadOriginalBytes"));
}

TEST(SameAccountRecordCodec, EveryBuilderRoundTripsThroughItsDecoder) {
    auto source = Codec::decodeSourceDevice(*Codec::makeSourceDeviceRecord(testing::sampleSnapshot(), kEpoch, "1.4.0", "mac", false));
    EXPECT_EQ(source, (QuotaSameAccountSyncV2SourceDevice{std::string(kEpoch), "mac-studio", "Studio", "studio.local", "macOS",
                                                          "mac", "1.4.0", at("2026-11-21T09:00:00Z"), false}));
    const auto gone = Codec::decodeSourceDevice(
        Codec::makeSourceDeviceTombstoneRecord("mac-studio", "Studio", kEpoch, "mac", at("2026-11-22T00:00:00Z")));
    EXPECT_TRUE(gone.isTombstoned);
    EXPECT_EQ(gone.lastSeenAt, at("2026-11-22T00:00:00Z"));

    const auto hot = Codec::decodeHotSnapshot(Codec::makeHotSnapshotRecord(testing::sampleSourceRecord(), kEpoch));
    EXPECT_EQ(hot.syncEpoch, kEpoch);
    EXPECT_EQ(hot.record, testing::sampleSourceRecord());
    EXPECT_EQ(Codec::decodeSessionDescriptor(Codec::makeSessionDescriptorRecord(testing::sampleDescriptor(), kEpoch, false)).descriptor,
              testing::sampleDescriptor());
    for (int messages : {0, 3, 400}) {
        const auto bundle = testing::sampleBundle(messages);
        EXPECT_EQ(Codec::decodeTranscriptBundle(Codec::makeTranscriptBundleRecord(bundle, kEpoch, false)).bundle, bundle);
    }
    EXPECT_EQ(Codec::decodeNotifyEvent(Codec::makeNotifyEventRecord(testing::sampleEnvelope(), kEpoch, false)).envelope,
              testing::sampleEnvelope());

    const Date when = at("2026-11-21T10:00:00Z");
    const std::string rowID = Codec::makeRowID("work:station", "s-1");
    EXPECT_EQ(Codec::decodeSessionDescriptorTombstoneRowID(Codec::makeSessionDescriptorTombstoneRecord(rowID, kEpoch, when)), rowID);
    EXPECT_EQ(Codec::decodeTranscriptBundleTombstoneRowID(Codec::makeTranscriptBundleTombstoneRecord(rowID, kEpoch, when)), rowID);
    const auto notifyGone = Codec::makeNotifyEventTombstoneRecord("env-42", kEpoch, when, when);
    EXPECT_TRUE(Codec::isTombstone(notifyGone));
    EXPECT_EQ(Codec::decodeNotifyEventTombstoneEnvelopeID(notifyGone), "env-42");
}

TEST(SameAccountRecordCodec, TheRecordsOwnIdentityFieldsWinOverThePayload) {
    auto record = Codec::makeHotSnapshotRecord(testing::sampleSourceRecord(), kEpoch);
    record.set("deviceName", std::string("Studio (renamed)"));
    record.set("hostName", std::string("studio.lan"));
    const auto hot = Codec::decodeHotSnapshot(record).record;
    EXPECT_EQ(hot.sourceName, "Studio (renamed)");
    EXPECT_EQ(hot.hostName, "studio.lan");
    EXPECT_EQ(hot.platformLabel, "macOS");

    auto session = Codec::makeSessionDescriptorRecord(testing::sampleDescriptor(), kEpoch, false);
    session.set("sessionID", std::string("other-session"));
    EXPECT_EQ(Codec::decodeSessionDescriptor(session).descriptor.id, "other-session");
}

TEST(SameAccountRecordCodec, AFlippedByteOfAStoredBlobIsCaught) {
    auto plain = Codec::makeSessionDescriptorRecord(testing::sampleDescriptor(), kEpoch, false);
    auto blob = *plain.get<QuotaCloudRecordBytes>("descriptorBlob");
    blob[blob.size() / 2] ^= 0x01;
    plain.set("descriptorBlob", blob);
    const auto error = codecError([&] { Codec::decodeSessionDescriptor(plain); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), CodecError::Kind::hashMismatch);
    EXPECT_STREQ(error->what(), "CloudKit record hash mismatch for field: descriptorHash.");

    // In a compressed blob a flip breaks decompression, changes the payload (hash mismatch), or
    // touches bits the stream does not use; it never yields a different value.
    const auto bundle = testing::sampleBundle(400);
    const auto compressed = Codec::makeTranscriptBundleRecord(bundle, kEpoch, false);
    const auto stored = *compressed.get<QuotaCloudRecordBytes>("payloadBlob");
    int caught = 0;
    for (std::size_t i = 0; i < stored.size(); i += 7) {
        auto flipped = compressed;
        auto bytes = stored;
        bytes[i] ^= 0x10;
        flipped.set("payloadBlob", bytes);
        try {
            EXPECT_EQ(Codec::decodeTranscriptBundle(flipped).bundle, bundle) << i;
        } catch (const QuotaCloudBlobCodecError&) {
            ++caught;
        } catch (const CodecError& e) {
            EXPECT_STREQ(e.what(), "CloudKit record hash mismatch for field: payloadHash.");
            ++caught;
        }
    }
    EXPECT_GT(caught, int(stored.size() / 7) * 9 / 10);
}

TEST(SameAccountRecordCodec, ErrorsCarryTheirExactTexts) {
    const auto notify = Codec::makeNotifyEventRecord(testing::sampleEnvelope(), kEpoch, false);
    const auto wrongType = codecError([&] { Codec::decodeHotSnapshot(notify); });
    ASSERT_TRUE(wrongType);
    EXPECT_EQ(wrongType->kind(), CodecError::Kind::unexpectedRecordType);
    EXPECT_EQ(wrongType->subject(), "GpSnapshotHot");
    EXPECT_EQ(wrongType->actual(), "GpNotifyEvent");
    EXPECT_STREQ(wrongType->what(), "Unexpected CloudKit record type: expected GpSnapshotHot, got GpNotifyEvent.");
    EXPECT_STREQ(CodecError::missingField("payloadBlob").what(), "Missing CloudKit record field: payloadBlob.");

    for (std::string_view id : {"", " \n\t"}) {
        auto envelope = testing::sampleEnvelope();
        envelope.envelopeID = id;
        const auto empty = codecError([&] { Codec::makeNotifyEventRecord(envelope, kEpoch, false); });
        ASSERT_TRUE(empty);
        EXPECT_STREQ(empty->what(), "Cannot encode a notify event with an empty envelope ID.");
        EXPECT_TRUE(codecError([&] { Codec::makeNotifyEventTombstoneRecord(id, kEpoch, {}, {}); }));
    }
}

// missingRequiredFields names exactly the fields whose absence makes the decoder fail with
// missingField, for every kind of record, live or deleted.
TEST(SameAccountRecordCodec, MissingRequiredFieldsAgreesWithTheDecoders) {
    const Date when = at("2026-11-21T10:00:00Z");
    const std::vector<std::pair<QuotaCloudRecord, std::function<void(const QuotaCloudRecord&)>>> cases{
        {*Codec::makeSourceDeviceRecord(testing::sampleSnapshot(), kEpoch, "1.4.0", "mac", false),
         [](const auto& r) { Codec::decodeSourceDevice(r); }},
        {Codec::makeHotSnapshotRecord(testing::sampleSourceRecord(), kEpoch), [](const auto& r) { Codec::decodeHotSnapshot(r); }},
        {Codec::makeSessionDescriptorRecord(testing::sampleDescriptor(), kEpoch, false),
         [](const auto& r) { Codec::decodeSessionDescriptor(r); }},
        {Codec::makeSessionDescriptorTombstoneRecord("w:s", kEpoch, when),
         [](const auto& r) { Codec::decodeSessionDescriptorTombstoneRowID(r); }},
        {Codec::makeTranscriptBundleRecord(testing::sampleBundle(3), kEpoch, false),
         [](const auto& r) { Codec::decodeTranscriptBundle(r); }},
        {Codec::makeTranscriptBundleTombstoneRecord("w:s", kEpoch, when),
         [](const auto& r) { Codec::decodeTranscriptBundleTombstoneRowID(r); }},
        {Codec::makeNotifyEventRecord(testing::sampleEnvelope(), kEpoch, false), [](const auto& r) { Codec::decodeNotifyEvent(r); }},
        {Codec::makeNotifyEventTombstoneRecord("env-42", kEpoch, when, when),
         [](const auto& r) { Codec::decodeNotifyEventTombstoneEnvelopeID(r); }},
    };
    for (const auto& entry : cases) {
        const QuotaCloudRecord& record = entry.first;
        const auto& decode = entry.second;
        EXPECT_TRUE(Codec::missingRequiredFields(record).empty()) << record.recordType;
        for (const auto& field : record.fields) {
            if (field.key == "isTombstoned") continue;  // turns a deletion into a live record and back
            for (const bool wrongType : {false, true}) {
                QuotaCloudRecord damaged = record;
                if (wrongType) {
                    damaged.set(field.key, std::holds_alternative<double>(field.value) ? QuotaCloudRecordValue(std::int64_t{1})
                                                                                       : QuotaCloudRecordValue(0.5));
                } else {
                    damaged.remove(field.key);
                }
                const auto missing = Codec::missingRequiredFields(damaged);
                if (missing.empty()) {  // an optional field, or one the decoder never reads
                    EXPECT_NO_THROW(decode(damaged)) << record.recordType << " " << field.key;
                    continue;
                }
                EXPECT_EQ(missing, std::vector<std::string>{field.key}) << record.recordType;
                const auto error = codecError([&] { decode(damaged); });
                ASSERT_TRUE(error) << record.recordType << " " << field.key;
                EXPECT_EQ(error->kind(), CodecError::Kind::missingField) << field.key;
                EXPECT_EQ(error->subject(), field.key);
            }
        }
    }
    const QuotaCloudRecord unknown{"GpSyncManifest", {}, {}};
    EXPECT_EQ(Codec::missingRequiredFields(unknown), std::vector<std::string>{"syncEpoch"});
}

}  // namespace
}  // namespace gaugepoint
