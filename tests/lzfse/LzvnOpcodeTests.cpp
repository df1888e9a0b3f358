// Each LZVN instruction class decoded on its own: the shared vectors do not exercise them
// all (medium and large distances, previous distance with literals, long literal and match
// runs, no-ops).

#include <gtest/gtest.h>

#include <string>

#include "LzfseTestSupport.hpp"
#include "lzfse/Lzfse.hpp"

namespace {

using namespace lzfse_test;
namespace lzfse = gaugepoint::lzfse;

struct Case {
    const char* name;
    Bytes prefix;        // output of an earlier raw block, for distances to reach into
    Bytes instructions;  // without the end instruction
    std::string expected;  // output of the LZVN block alone
    friend void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }
};

Bytes rawAndLzvn(const Case& c, std::size_t rawBytes) {
    Bytes s = {'b', 'v', 'x', '-'};
    put32(s, static_cast<std::uint32_t>(c.prefix.size()));
    s.insert(s.end(), c.prefix.begin(), c.prefix.end());
    s.insert(s.end(), {'b', 'v', 'x', 'n'});
    put32(s, static_cast<std::uint32_t>(rawBytes));
    put32(s, static_cast<std::uint32_t>(c.instructions.size() + 8));
    s.insert(s.end(), c.instructions.begin(), c.instructions.end());
    s.insert(s.end(), {0x06, 0, 0, 0, 0, 0, 0, 0, 'b', 'v', 'x', '$'});
    return s;
}

Bytes far(std::size_t n) { return wordText(n, 5); }

std::string tail(const Bytes& b, std::size_t distance, std::size_t n) {
    return std::string(b.end() - static_cast<std::ptrdiff_t>(distance), b.end() - static_cast<std::ptrdiff_t>(distance - n));
}

std::vector<Case> cases() {
    const Bytes f = far(70000);
    Bytes largeLiteral = {0xE0, 0x04};  // L = 4 + 16
    largeLiteral.resize(22, 'k');
    return {
        {"small_distance_with_literals", {}, {0x88, 2, 'x', 'y'}, "xyxyxy"},           // L2 M4 D2
        {"medium_distance", f, {0xA7, 0x43, 0x9C}, tail(f, 10000, 34)},                // L0 M34 D10000
        {"medium_distance_with_literals", f, {0xB8, 0x40, 0x9C, 'q', 'r', 's'}, "qrs" + tail(f, 10000 - 3, 3)},
        {"large_distance", f, {0x3F, 0x60, 0xEA}, tail(f, 60000, 10)},                 // L0 M10 D60000
        {"previous_distance_with_literal", f, {0x3F, 0x60, 0xEA, 0x46, 'z'}, tail(f, 60000, 10) + "z" + tail(f, 60000 - 11, 3)},
        {"large_literal", {}, largeLiteral, std::string(20, 'k')},
        {"large_match", {}, {0xE1, 'm', 0x00, 0x01, 0xF0, 0x10}, std::string(1 + 3 + 32, 'm')},
        {"no_ops_are_skipped", {}, {0x0E, 0xE1, 'n', 0x16}, "n"},
    };
}

class LzvnOpcode : public testing::TestWithParam<Case> {};

TEST_P(LzvnOpcode, DecodesToExpectedBytes) {
    const Case& c = GetParam();
    const Bytes out = lzfse::decompress(rawAndLzvn(c, c.expected.size()));
    ASSERT_GE(out.size(), c.prefix.size());
    EXPECT_EQ(std::string(out.begin() + static_cast<std::ptrdiff_t>(c.prefix.size()), out.end()), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Classes, LzvnOpcode, testing::ValuesIn(cases()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
