// Histogram normalisation must hand out exactly N states and keep every used symbol
// codable, for any histogram; a violation corrupts streams only for unlucky inputs.

#include <gtest/gtest.h>

#include <numeric>
#include <random>

#include "lzfse/Fse.hpp"

namespace {

using gaugepoint::lzfse::detail::normaliseCounts;

struct Shape {
    const char* name;
    unsigned symbols;
    unsigned states;
    unsigned maxCount;
    unsigned used;  // symbols with a non-zero count
    friend void PrintTo(const Shape& s, std::ostream* out) { *out << s.name; }
};

class Normalise : public testing::TestWithParam<Shape> {};

TEST_P(Normalise, SumsToStatesAndKeepsEveryUsedSymbol) {
    const Shape p = GetParam();
    std::mt19937 rng(p.symbols * 31 + p.used);
    for (int round = 0; round < 500; ++round) {
        std::vector<std::uint32_t> counts(p.symbols, 0);
        for (unsigned i = 0; i < p.used; ++i) counts[rng() % p.symbols] = 1 + rng() % p.maxCount;
        std::vector<std::uint16_t> freq(p.symbols);
        normaliseCounts(counts.data(), p.symbols, p.states, freq.data());
        EXPECT_EQ(std::accumulate(freq.begin(), freq.end(), 0u), p.states);
        for (unsigned s = 0; s < p.symbols; ++s) {
            if (counts[s] != 0) {
                ASSERT_GE(freq[s], 1u) << "symbol " << s;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Tables, Normalise,
                         testing::Values(Shape{"literals_flat", 256, 1024, 100, 256},
                                         Shape{"literals_skewed", 256, 1024, 40000, 30},
                                         Shape{"literals_all_rare", 256, 1024, 1, 256},
                                         Shape{"l_sparse", 20, 64, 9992, 3},
                                         Shape{"m_many_rare", 20, 64, 2, 20},
                                         Shape{"d_many_rare", 64, 256, 3, 64},
                                         Shape{"d_one_symbol", 64, 256, 5000, 1}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Normalise, EmptyHistogramGivesEveryStateToSymbolZero) {
    std::vector<std::uint32_t> counts(64, 0);
    std::vector<std::uint16_t> freq(64, 7);
    normaliseCounts(counts.data(), 64, 256, freq.data());
    EXPECT_EQ(freq[0], 256);
    EXPECT_EQ(std::accumulate(freq.begin(), freq.end(), 0u), 256u);
}

}  // namespace
