#include <gtest/gtest.h>

#include <random>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/sync/QuotaCloudBlobCodec.hpp"
#include "lzfse/Lzfse.hpp"

namespace gaugepoint {
namespace {

namespace Codec = QuotaCloudBlobCodec;
using Bytes = std::vector<std::uint8_t>;

Bytes text(std::size_t n) {
    const std::string words = "quota window resets in five hours and the weekly cycle on monday ";
    Bytes out(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = std::uint8_t(words[(i * 7 + i / 13) % words.size()]);
    return out;
}

Bytes noise(std::size_t n, unsigned seed = 1) {
    std::mt19937 random(seed);
    Bytes out(n);
    for (auto& b : out) b = std::uint8_t(random());
    return out;
}

TEST(CloudBlobCodec, ShortPayloadsStayPlainWithoutCompressing) {
    const auto empty = Codec::encode(Bytes{});
    EXPECT_EQ(empty.encoding, QuotaCloudBlobEncoding::plain);
    EXPECT_EQ(empty.originalBytes, 0);
    EXPECT_EQ(empty.storedBytes, 0);
    const auto justBelow = Codec::encode(Bytes(1023, 'a'));
    EXPECT_EQ(justBelow.encoding, QuotaCloudBlobEncoding::plain);
    EXPECT_EQ(justBelow.data, Bytes(1023, 'a'));
    const auto atThreshold = Codec::encode(Bytes(1024, 'a'));
    EXPECT_EQ(atThreshold.encoding, QuotaCloudBlobEncoding::lzfse);
    EXPECT_EQ(atThreshold.originalBytes, 1024);
    EXPECT_EQ(atThreshold.storedBytes, std::int64_t(atThreshold.data.size()));
}

TEST(CloudBlobCodec, KeepsCompressionOnlyWhenItSavesMoreThanTheMinimum) {
    const Bytes payload = text(4000);
    const auto n = std::int64_t(payload.size());
    const auto c = std::int64_t(lzfse::compress(payload).size());
    ASSERT_LT(c + 200, n);
    const auto exactSaving = Codec::encode(payload, Codec::minimumCompressionBytes, n - c);
    EXPECT_EQ(exactSaving.encoding, QuotaCloudBlobEncoding::plain);
    EXPECT_EQ(exactSaving.storedBytes, n);
    const auto oneMore = Codec::encode(payload, Codec::minimumCompressionBytes, n - c - 1);
    EXPECT_EQ(oneMore.encoding, QuotaCloudBlobEncoding::lzfse);
    EXPECT_EQ(oneMore.storedBytes, c);
}

TEST(CloudBlobCodec, IncompressiblePayloadsStayPlain) {
    for (std::size_t n : {1024u, 5000u, 200000u}) {
        const Bytes random = noise(n);
        const auto blob = Codec::encode(random);
        EXPECT_EQ(blob.encoding, QuotaCloudBlobEncoding::plain) << n;
        EXPECT_EQ(blob.storedBytes, blob.originalBytes);
        EXPECT_EQ(blob.data, random);
        // An already compressed payload does not shrink a second time either.
        EXPECT_EQ(Codec::encode(Codec::encode(text(n)).data).encoding, QuotaCloudBlobEncoding::plain);
    }
}

TEST(CloudBlobCodec, RoundTripsPayloadsOfManySizesAndShapes) {
    std::mt19937 random(7);
    for (int i = 0; i < 200; ++i) {
        const std::size_t n = random() % (i < 150 ? 5000 : 300000);
        const Bytes payload = i % 3 == 0 ? noise(n, unsigned(i)) : i % 3 == 1 ? text(n) : Bytes(n, std::uint8_t(i));
        const auto blob = Codec::encode(payload);
        EXPECT_EQ(Codec::decodeData(blob.data, json::rawValue(blob.encoding)), payload) << n;
        EXPECT_EQ(blob.storedBytes, std::int64_t(blob.data.size()));
    }
}

TEST(CloudBlobCodec, UnknownOrAbsentEncodingsReadAsPlain) {
    const Bytes stored = text(50);
    for (std::optional<std::string_view> name : {std::optional<std::string_view>{}, {"plain"}, {"gzip"}, {"LZFSE"}, {""}}) {
        EXPECT_EQ(Codec::decodeData(stored, name), stored);
    }
}

TEST(CloudBlobCodec, ErrorsCarryTheirExactTexts) {
    try {
        Codec::decodeData(text(64), "lzfse");
        FAIL();
    } catch (const QuotaCloudBlobCodecError& e) {
        EXPECT_EQ(e.kind(), QuotaCloudBlobCodecError::Kind::decompressionFailed);
        EXPECT_EQ(std::string(e.what()).rfind("Cloud blob decompression failed: ", 0), 0u);
        EXPECT_EQ(std::string(e.what()), "Cloud blob decompression failed: " + e.underlying());
        EXPECT_FALSE(e.underlying().empty());
    }
    EXPECT_STREQ(QuotaCloudBlobCodecError::compressionFailed().what(), "Cloud blob compression failed.");
}

TEST(CloudBlobCodec, DecodesValuesAndPassesJsonErrorsThrough) {
    QuotaSnapshot snapshot;
    snapshot.generatedAt = testing::at("2026-11-21T10:00:00Z");
    snapshot.providers.resize(40, ProviderQuota{"claude", "Claude", {}, {}, {}, 12.5, {}, QuotaProviderStrategy::creditsOnly, {}, {}});
    const auto blob = Codec::encode(json::encode(snapshot));
    ASSERT_EQ(blob.encoding, QuotaCloudBlobEncoding::lzfse);
    EXPECT_EQ(Codec::decode<QuotaSnapshot>(blob.data, "lzfse"), snapshot);
    const std::string notASnapshot = R"({"version":1})";
    const Bytes bytes(notASnapshot.begin(), notASnapshot.end());
    EXPECT_THROW(Codec::decode<QuotaSnapshot>(bytes, std::nullopt), json::DecodingError);
}

}  // namespace
}  // namespace gaugepoint
