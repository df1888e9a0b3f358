// Round trip over generated inputs of many shapes and sizes, around every size where the
// encoder changes behaviour: the raw/LZVN/LZFSE thresholds (8, 4096) and the block fill
// limits (39984 literal bytes, 9992 triples per block).

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "LzfseTestSupport.hpp"
#include "lzfse/Lzfse.hpp"

namespace {

using namespace lzfse_test;
namespace lzfse = gaugepoint::lzfse;

enum class Shape { Random, Text, Run, Alternating, ShortRepeats, Mixed };

const char* shapeName(Shape s) {
    static const char* const kNames[] = {"random", "text", "run", "alternating", "short_repeats", "mixed"};
    return kNames[static_cast<int>(s)];
}

Bytes make(Shape shape, std::size_t n, std::uint32_t seed) {
    switch (shape) {
    case Shape::Random: return randomBytes(n, seed);
    case Shape::Text: return wordText(n, seed);
    case Shape::Run: return run(n, static_cast<std::uint8_t>(seed));
    case Shape::Alternating: {
        Bytes b(n);
        for (std::size_t i = 0; i < n; ++i) b[i] = i % 2 ? 'a' : 'b';
        return b;
    }
    case Shape::ShortRepeats: {
        // 4-byte matches separated by one fresh byte: the most triples per output byte,
        // so blocks fill up on the triple limit rather than the literal limit.
        Bytes b = randomBytes(n, seed);
        for (std::size_t i = 8; i + 4 < n; i += 5) std::copy_n(b.begin() + (i % 4096), 4, b.begin() + i);
        return b;
    }
    case Shape::Mixed: {
        Bytes b = wordText(n, seed);
        const Bytes noise = randomBytes(n, seed + 1);
        for (std::size_t i = 0; i < n; i += 1 + noise[i] * 4) std::copy_n(noise.begin() + i, std::min<std::size_t>(64, n - i), b.begin() + i);
        return b;
    }
    }
    return {};
}

const std::size_t kSizes[] = {0,     1,     7,     8,     9,     15,    16,    100,   1000,  4095,
                              4096,  4097,  8191,  39983, 39984, 39985, 40000, 40016, 65536, 100000,
                              262139, 262150};

struct Case {
    Shape shape;
    std::size_t size;
    friend void PrintTo(const Case& c, std::ostream* out) { *out << int(c.shape) << "/" << c.size; }
};

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (Shape s : {Shape::Random, Shape::Text, Shape::Run, Shape::Alternating, Shape::ShortRepeats, Shape::Mixed})
        for (std::size_t n : kSizes) cases.push_back({s, n});
    return cases;
}

class RoundTrip : public testing::TestWithParam<Case> {};

TEST_P(RoundTrip, DecodesToInput) {
    const Bytes input = make(GetParam().shape, GetParam().size, static_cast<std::uint32_t>(GetParam().size));
    const Bytes stream = lzfse::compress(input);
    ASSERT_EQ(lzfse::decompress(stream), input);
    // Block kind follows input size: raw below 8 bytes, LZVN (or raw if no smaller) below 4096.
    ASSERT_GE(stream.size(), 4u);
    const std::string first(stream.begin(), stream.begin() + 4);
    if (input.size() < 8) EXPECT_EQ(first, "bvx-");
    else if (input.size() < 4096) EXPECT_TRUE(first == "bvxn" || first == "bvx-") << first;
    else EXPECT_EQ(first, "bvx2");
}

INSTANTIATE_TEST_SUITE_P(Shapes, RoundTrip, testing::ValuesIn(allCases()), [](const auto& info) {
    return std::string(shapeName(info.param.shape)) + "_" + std::to_string(info.param.size);
});

TEST(RoundTripLarge, SeveralMegabytesSpanManyBlocksAndReachAcrossThem) {
    Bytes input = make(Shape::Mixed, 6u << 20, 7);
    // Repeat an early stretch at the far end of the match window so matches reach back
    // into earlier blocks.
    std::copy_n(input.begin(), 100000, input.begin() + 262139 + 100000);
    const Bytes stream = lzfse::compress(input);
    EXPECT_EQ(lzfse::decompress(stream), input);
}

TEST(RoundTripLarge, RandomSizesAndShapes) {
    std::mt19937 rng(2024);
    for (int i = 0; i < 200; ++i) {
        const auto shape = static_cast<Shape>(rng() % 6);
        const std::size_t n = rng() % 3 == 0 ? rng() % 64 : rng() % 20000;
        const Bytes input = make(shape, n, rng());
        ASSERT_EQ(lzfse::decompress(lzfse::compress(input)), input) << shapeName(shape) << " " << n;
    }
}

// Matches closer than 16 bytes are copied by repeating their period. Every period up to 40,
// in runs of many lengths (a stray byte breaks the run now and then), through both the LZVN
// (1000 bytes) and the LZFSE (50000 bytes) decoder.
TEST(RoundTripLarge, EveryShortPeriodRepeats) {
    std::mt19937 rng(7);
    for (std::size_t period = 1; period <= 40; ++period) {
        for (std::size_t n : {std::size_t{1000}, std::size_t{50000}}) {
            const Bytes unit = randomBytes(period, static_cast<std::uint32_t>(period));
            Bytes input(n);
            for (std::size_t i = 0; i < n; ++i) input[i] = unit[i % period];
            for (std::size_t i = rng() % 64; i < n; i += 5 + rng() % 300) input[i] = static_cast<std::uint8_t>(rng());
            ASSERT_EQ(lzfse::decompress(lzfse::compress(input)), input) << "period " << period << ", " << n << " bytes";
        }
    }
}

// A reused buffer's bytes are overwritten, not cleared first: whatever it held and however
// large it was, the result is exactly the stream's output.
TEST(RoundTripLarge, DecompressIntoReusesTheBuffer) {
    Bytes out(300000, 0xAA);
    for (std::size_t n : {50000, 120000, 3000, 0, 250000}) {
        const Bytes input = wordText(n, static_cast<std::uint32_t>(n));
        lzfse::decompressInto(lzfse::compress(input), out);
        ASSERT_EQ(out, input) << n << " bytes";
    }
}

}  // namespace
