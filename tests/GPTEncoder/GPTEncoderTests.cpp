// GPTEncoder behaviour beyond the reference ids: round trips, ill-formed UTF-8, unknown ids, the
// merge cache, the string views of the vocabulary, concurrency, and the blob checks.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "GPTEncoder/GPTEncoder.hpp"

namespace gaugepoint {
namespace {

TEST(GPTEncoder, DecodeInvertsEncodeOnGeneratedText) {
    const std::vector<std::string> alphabet = {"a", "Q", "z", " ", "  ", "\n", "\t", "'s", "'", "9", "42", ".", "!?", "é", "ß", "Ж",
                                               "中文", "한", "🚀", "👨‍👩‍👧", "\u0301", "\u00A0", "\u3000", "\uFEFF", "<|endoftext|>", std::string(1, '\0')};
    GPTEncoder encoder;
    std::mt19937 random(3);
    for (int run = 0; run < 3000; ++run) {
        std::string text;
        for (auto n = random() % 40; n > 0; --n) text += alphabet[random() % alphabet.size()];
        ASSERT_EQ(encoder.decode(encoder.encode(text)), text);
    }
}

// Ill-formed input is read as text decoding reads it: each maximal ill-formed subpart is one U+FFFD.
TEST(GPTEncoder, IllFormedUtf8EncodesAsItsRepair) {
    const std::pair<std::string, std::string> cases[] = {
        {"a\xFF" "b", "a\uFFFD" "b"},             {"\xE2\x82(", "\uFFFD("},
        {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},   {"\xC0\xAF", "\uFFFD\uFFFD"},
        {"ok \xF0\x9F\x98", "ok \uFFFD"},         {"\xF4\x90\x80\x80!", "\uFFFD\uFFFD\uFFFD\uFFFD!"},
        {"\x80\x80 x", "\uFFFD\uFFFD x"},         {"caf\xC3", "caf\uFFFD"},
    };
    GPTEncoder encoder;
    for (const auto& [input, repaired] : cases) {
        EXPECT_EQ(encoder.encode(input), encoder.encode(repaired)) << repaired;
        EXPECT_EQ(encoder.decode(encoder.encode(input)), repaired);
    }
}

TEST(GPTEncoder, DecodeSkipsUnknownIdsAndRepairsSplitCharacters) {
    const GPTEncoder encoder;
    EXPECT_EQ(encoder.decode(std::vector<int>{-1, 31373, 50257, 995, 1 << 30}), "hello world");
    EXPECT_EQ(encoder.decode(std::vector<int>{447, 247}), "\u2019");  // the two halves of ’
    EXPECT_EQ(encoder.decode(std::vector<int>{447}), "\uFFFD");
    EXPECT_EQ(encoder.decode(std::vector<int>{50256}), "<|endoftext|>");
    EXPECT_EQ(encoder.decode(std::vector<int>{}), "");
}

TEST(GPTEncoder, CacheHoldsTheIdsOfPiecesThatAreNoSingleToken) {
    GPTEncoder encoder;
    EXPECT_EQ(encoder.encode("hello world!"), (std::vector<int>{31373, 995, 0}));
    EXPECT_EQ(encoder.cache.count(), 0u);  // every piece is one token
    EXPECT_EQ(encoder.encode(" tokenization"), (std::vector<int>{11241, 1634}));
    EXPECT_EQ(encoder.cache.count(), 1u);
    std::uint16_t ids[MergeCache::kMaxIds];
    const std::string_view piece = " tokenization";
    ASSERT_EQ(encoder.cache.lookup(vocabulary_format::PieceKey::of(piece), ids), 2u);
    EXPECT_EQ(std::vector<int>(ids, ids + 2), (std::vector<int>{11241, 1634}));
    encoder.clearCache();
    EXPECT_EQ(encoder.cache.count(), 0u);
}

TEST(GPTEncoder, CachedIdsAreTrustedOverMerging) {
    GPTEncoder encoder;
    const std::string_view piece = " tokenization";
    const std::uint32_t ids[] = {7, 8, 9};
    encoder.cache.store(vocabulary_format::PieceKey::of(piece), ids);
    EXPECT_EQ(encoder.encode("a tokenization"), (std::vector<int>{64, 7, 8, 9}));
}

// The cache never grows past its slots, and pieces too long for a slot are merged every time.
TEST(GPTEncoder, CacheStaysBounded) {
    GPTEncoder encoder;
    std::string text;
    for (int i = 0; i < 150000; ++i) text += " q" + std::to_string(i * 7919) + "zx";
    const std::string longWord = " " + std::string(40, 'q') + "zx";
    const auto ids = encoder.encode(text);
    EXPECT_LE(encoder.cache.count(), MergeCache::kSlots);
    EXPECT_EQ(encoder.decode(ids), text);
    const auto once = encoder.encode(longWord);
    EXPECT_EQ(encoder.encode(longWord), once);
    EXPECT_EQ(encoder.decode(once), longWord);
}

TEST(GPTEncoder, StringViewsOfTheVocabulary) {
    const GPTEncoder encoder;
    EXPECT_EQ(encoder.byteEncoder[' '], "\u0120");
    EXPECT_EQ(encoder.byteEncoder['\n'], "\u010A");
    EXPECT_EQ(encoder.byteEncoder[0xAD], "\u0143");
    EXPECT_EQ(encoder.byteEncoder['A'], "A");
    for (unsigned b = 0; b < 256; ++b) {
        const std::string_view mapped = encoder.byteEncoder[static_cast<std::uint8_t>(b)];
        EXPECT_EQ(encoder.byteDecoder.unmap(mapped), std::string(1, static_cast<char>(b)));
    }
    EXPECT_EQ(encoder.byteDecoder.unmap("Ġx\u0100"), std::string(" x") + '\0');
    EXPECT_EQ(encoder.byteDecoder.unmap("\u0144"), std::nullopt);
    EXPECT_EQ(encoder.encoder.size(), 50257u);
    EXPECT_EQ(encoder.encoder.find("Ġworld"), 995);
    EXPECT_EQ(encoder.encoder.find("world "), std::nullopt);
    EXPECT_EQ(encoder.decoder.find(995), "Ġworld");
    EXPECT_EQ(encoder.decoder.find(50257), std::nullopt);
    EXPECT_EQ(encoder.bpeMerges.size(), 50000u);
    EXPECT_EQ(encoder.bpeMerges.at(0), (std::pair<std::string, std::string>{"Ġ", "t"}));
    EXPECT_THROW(encoder.bpeMerges.at(50000), std::out_of_range);
    EXPECT_EQ(encoder.bpeRanks.find("Ġ", "t"), 0);
    EXPECT_EQ(encoder.bpeRanks.find("t", "Ġ"), std::nullopt);
}

TEST(GPTEncoder, ThreadsSharingOneEncoderAgree) {
    GPTEncoder encoder;
    const std::string text = "Threads race to fill the cache with the same merged forms, 12345 times. 中文 🚀";
    GPTEncoder reference;
    const auto expected = reference.encode(text);
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                if (i % 50 == 0) encoder.clearCache();
                mismatches[t] += encoder.encode(text) != expected;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

TEST(Vocabulary, RejectsDamagedBlobs) {
    const std::string good(embeddedVocabularyBlob());
    EXPECT_NO_THROW(Vocabulary{good});
    const auto damaged = [&](std::size_t at, char value) {
        std::string copy = good;
        copy[at] = value;
        return copy;
    };
    const std::size_t firstTokenEnd = sizeof(vocabulary_format::Header) + 4;  // offsets[1]
    const std::string bad[] = {good.substr(0, good.size() - 1), good.substr(0, 20), damaged(0, 'X'), damaged(8, 9),
                               damaged(firstTokenEnd + 3, 0x7F), good + "?"};
    for (const auto& blob : bad) EXPECT_THROW(Vocabulary{blob}, std::runtime_error);
}

}  // namespace
}  // namespace gaugepoint
