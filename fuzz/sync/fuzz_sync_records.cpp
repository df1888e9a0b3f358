// Arbitrary bytes as the JSON form of a same-account cloud record. Whatever parses must survive
// every decoder with a value or one of the codec's clear errors; the form must re-encode
// unchanged; missingRequiredFields must agree with the decoders; a decoded value must build a
// record that decodes to it again; a row ID that parses must round-trip.

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <tuple>

#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/sync/QuotaCloudBlobCodec.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2RecordCodec.hpp"

namespace {

using namespace gaugepoint;
namespace Codec = QuotaSameAccountSyncV2RecordCodec;
using CodecError = QuotaSameAccountSyncV2RecordCodecError;

void check(bool condition) {
    if (!condition) std::abort();
}

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

// Runs one decoder; any failure must be a clear error. When the decoder is the one for this
// record (its type, and deletion or not), it succeeds exactly when missingRequiredFields names
// nothing, and a field it reports missing is one that list names.
void decodeWith(const std::vector<std::string>& missing, bool applies, const std::function<void()>& decode) {
    try {
        decode();
        if (applies) check(missing.empty());
    } catch (const CodecError& e) {
        check(*e.what() != '\0');
        if (applies && e.kind() == CodecError::Kind::missingField) check(contains(missing, e.subject()));
    } catch (const QuotaCloudBlobCodecError& e) {
        check(*e.what() != '\0');
    } catch (const json::DecodingError& e) {
        check(*e.what() != '\0');
    }
}

// A decoded value builds a record that decodes to the same value. Compared as JSON, since a
// date read with more than six fractional digits is written with six.
template <class Value, class Build, class Decode>
void rebuild(const Value& value, Build build, Decode decode) {
    try {
        check(json::encode(decode(build(value))) == json::encode(value));
    } catch (const json::EncodingError&) {
        // a value JSON cannot hold; nothing to compare
    } catch (...) {
        std::abort();  // a value that decoded once must build and decode again
    }
}

void exercise(const QuotaCloudRecord& record) {
    const bool tombstone = Codec::isTombstone(record);
    const auto missing = Codec::missingRequiredFields(record);
    namespace Type = QuotaSameAccountSyncV2::RecordType;
    const auto is = [&](std::string_view type, bool deletion) { return record.recordType == type && tombstone == deletion; };
    const std::string epoch = "v2-0-fuzz";
    decodeWith(missing, record.recordType == Type::sourceDevice, [&] { Codec::decodeSourceDevice(record); });
    decodeWith(missing, record.recordType == Type::snapshotHot, [&] {
        const auto hot = Codec::decodeHotSnapshot(record);
        rebuild(hot.record, [&](const auto& v) { return Codec::makeHotSnapshotRecord(v, epoch); },
                [](const auto& r) { return Codec::decodeHotSnapshot(r).record; });
    });
    decodeWith(missing, is(Type::sessionDescriptor, false), [&] {
        const auto decoded = Codec::decodeSessionDescriptor(record);
        rebuild(decoded.descriptor, [&](const auto& v) { return Codec::makeSessionDescriptorRecord(v, epoch, false); },
                [](const auto& r) { return Codec::decodeSessionDescriptor(r).descriptor; });
    });
    decodeWith(missing, is(Type::transcriptBundle, false), [&] {
        const auto decoded = Codec::decodeTranscriptBundle(record);
        rebuild(decoded.bundle, [&](const auto& v) { return Codec::makeTranscriptBundleRecord(v, epoch, false); },
                [](const auto& r) { return Codec::decodeTranscriptBundle(r).bundle; });
    });
    decodeWith(missing, is(Type::notifyEvent, false), [&] {
        const auto decoded = Codec::decodeNotifyEvent(record);
        if (trimmed(decoded.envelope.envelopeID).empty()) return;  // refused by the builder, by design
        rebuild(decoded.envelope, [&](const auto& v) { return Codec::makeNotifyEventRecord(v, epoch, false); },
                [](const auto& r) { return Codec::decodeNotifyEvent(r).envelope; });
    });
    decodeWith(missing, is(Type::sessionDescriptor, true), [&] { Codec::decodeSessionDescriptorTombstoneRowID(record); });
    decodeWith(missing, is(Type::transcriptBundle, true), [&] { Codec::decodeTranscriptBundleTombstoneRowID(record); });
    decodeWith(missing, is(Type::notifyEvent, true), [&] { Codec::decodeNotifyEventTombstoneEnvelopeID(record); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    QuotaCloudRecord record;
    try {
        record = json::decode<QuotaCloudRecord>(text);
    } catch (const json::DecodingError& e) {
        check(*e.what() != '\0');
        return 0;
    }
    const std::string once = json::encode(record);
    check(json::encode(json::decode<QuotaCloudRecord>(once)) == once);

    exercise(record);
    // The hash guards the payload, so mutated payloads rarely get past it; with the hash made to
    // match, the payload decoders and the rebuilding see them too.
    QuotaCloudRecord rehashed = record;
    for (const auto& [blob, encoding, hash] : {std::tuple{Codec::Field::payloadBlob, Codec::Field::payloadEncoding,
                                                          Codec::Field::payloadHash},
                                               std::tuple{Codec::Field::descriptorBlob, Codec::Field::descriptorEncoding,
                                                          Codec::Field::descriptorHash}}) {
        const auto* stored = record.get<QuotaCloudRecordBytes>(blob);
        if (!stored) continue;
        const auto* name = record.get<std::string>(encoding);
        try {
            const auto payload = QuotaCloudBlobCodec::decodeData(*stored, name ? std::optional<std::string_view>(*name) : std::nullopt);
            rehashed.set(hash, sha256Hex(payload));
        } catch (const QuotaCloudBlobCodecError&) {
        }
    }
    if (!(rehashed == record)) exercise(rehashed);

    if (const auto* rowID = record.get<std::string>(Codec::Field::rowID)) {
        if (const auto parts = Codec::parseRowID(*rowID)) {
            check(Codec::parseRowID(Codec::makeRowID(parts->first, parts->second)) == parts);
        }
    }
    return 0;
}
