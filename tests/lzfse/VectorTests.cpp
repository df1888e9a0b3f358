// The shared vectors: every stream decodes to its original, and for the streams the platform
// encoder wrote, our encoder writes the same bytes.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "LzfseTestSupport.hpp"
#include "lzfse/Lzfse.hpp"

namespace {

using namespace lzfse_test;
namespace lzfse = gaugepoint::lzfse;

struct Vector {
    const char* name;
    bool assembled;  // hand-assembled from reference blocks: decode only
    friend void PrintTo(const Vector& v, std::ostream* out) { *out << v.name; }
};

const Vector kVectors[] = {
    {"empty", false},       {"one-byte", false},    {"text-100", false},  {"lzvn-example", false},
    {"text-1024", false},   {"text-4095", false},   {"text-4096", false}, {"prose-20k", false},
    {"json-200k", false},   {"random-100k", false}, {"mixed-2m", false},  {"blocks-mixed", true},
    {"v1-prose-20k", true},
};

std::vector<Vector> encoderOutputs() {
    std::vector<Vector> v;
    for (const Vector& x : kVectors)
        if (!x.assembled) v.push_back(x);
    return v;
}

std::string testName(const testing::TestParamInfo<Vector>& info) {
    std::string n = info.param.name;
    std::replace(n.begin(), n.end(), '-', '_');
    return n;
}

class VectorTest : public testing::TestWithParam<Vector> {};
class EncoderVectorTest : public testing::TestWithParam<Vector> {};

TEST_P(VectorTest, DecodesToOriginal) {
    const Bytes stream = readVector(std::string(GetParam().name) + ".lzfse");
    EXPECT_EQ(lzfse::decompress(stream), readVector(std::string(GetParam().name) + ".bin"));
}

TEST_P(EncoderVectorTest, ReproducesPlatformStream) {
    const Bytes original = readVector(std::string(GetParam().name) + ".bin");
    const Bytes stream = readVector(std::string(GetParam().name) + ".lzfse");
    const Bytes ours = lzfse::compress(original);
    ASSERT_EQ(ours.size(), stream.size());
    EXPECT_TRUE(ours == stream) << "first difference at byte "
                                << (std::mismatch(ours.begin(), ours.end(), stream.begin()).first - ours.begin());
}

INSTANTIATE_TEST_SUITE_P(Shared, VectorTest, testing::ValuesIn(kVectors), testName);
INSTANTIATE_TEST_SUITE_P(Shared, EncoderVectorTest, testing::ValuesIn(encoderOutputs()), testName);

TEST(VectorTest, TrailingBytesAfterEndMarkerAreIgnored) {
    Bytes stream = readVector("text-1024.lzfse");
    stream.insert(stream.end(), {0xde, 0xad, 0xbe, 0xef, 0x00});
    EXPECT_EQ(lzfse::decompress(stream), readVector("text-1024.bin"));
}

TEST(VectorTest, BareEndMarkerIsAnEmptyStream) {
    EXPECT_TRUE(lzfse::decompress(Bytes{'b', 'v', 'x', '$'}).empty());
}

TEST(VectorTest, StringConveniencesRoundTrip) {
    const std::string text = "gauge gauge gauge gauge gauge";
    EXPECT_EQ(lzfse::decompressString(lzfse::compressString(text)), text);
}

}  // namespace
