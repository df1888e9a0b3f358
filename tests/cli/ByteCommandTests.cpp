#include <gtest/gtest.h>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

const auto kJson = testing::testData("lzfse/json-200k.bin");

TEST(LzfseCommand, CompressesToTheReferenceStreamAndBack) {
    testing::ScratchDirectory dir;
    const auto compressed = gaugepoint({"lzfse", "compress", "-i", kJson.string(), "-o", (dir / "a.lzfse").string()});
    ASSERT_EQ(compressed.exitCode, 0) << compressed.err;
    EXPECT_EQ(testing::readFile(dir / "a.lzfse"), testing::readFile(testing::testData("lzfse/json-200k.lzfse")));
    const auto back = gaugepoint({"lzfse", "decompress"}, testing::readFile(dir / "a.lzfse"));
    ASSERT_EQ(back.exitCode, 0);
    EXPECT_EQ(back.out, testing::readFile(kJson));
}

TEST(LzfseCommand, ACorruptStreamFailsAndLeavesNoFile) {
    testing::ScratchDirectory dir;
    const std::string stream = testing::readFile(testing::testData("lzfse/json-200k.lzfse"));
    const auto result = gaugepoint({"lzfse", "decompress", "-o", (dir / "out").string()}, stream.substr(0, 5000));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.rfind("gaugepoint: cannot decompress standard input: ", 0), 0u) << result.err;
    EXPECT_FALSE(std::filesystem::exists(dir / "out"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 0);
}

TEST(BlobCommand, EncodeReportsCountsAndDecodeRestores) {
    testing::ScratchDirectory dir;
    const auto encoded = gaugepoint({"blob", "encode", "-i", kJson.string(), "-o", (dir / "blob").string(), "--json"});
    ASSERT_EQ(encoded.exitCode, 0) << encoded.err;
    const auto counts = json::parse(encoded.out);
    EXPECT_EQ(counts.at("encoding").as_string(), "lzfse");
    EXPECT_EQ(counts.at("originalBytes").as_int64(), 204790);
    EXPECT_EQ(counts.at("storedBytes").as_int64(), std::int64_t(std::filesystem::file_size(dir / "blob")));

    const auto decoded = gaugepoint({"blob", "decode", "--encoding", "lzfse", "-i", (dir / "blob").string()});
    EXPECT_EQ(decoded.out, testing::readFile(kJson));
    EXPECT_EQ(gaugepoint({"blob", "decode", "--encoding", "future"}, "as is").out, "as is");

    const auto small = gaugepoint({"blob", "encode"}, "tiny payload");
    EXPECT_EQ(small.out, "tiny payload");
    EXPECT_EQ(small.err, "encoding plain, 12 bytes stored as 12\n");
}

TEST(BlobCommand, UsageAndDecodingFailures) {
    EXPECT_EQ(gaugepoint({"blob", "encode", "--json"}, "x").exitCode, 2);  // counts and bytes cannot share stdout
    EXPECT_EQ(gaugepoint({"blob", "decode"}, "x").exitCode, 2);            // --encoding is required
    const auto bad = gaugepoint({"blob", "decode", "--encoding", "lzfse"}, "not a stream");
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.err.rfind("gaugepoint: Cloud blob decompression failed: ", 0), 0u) << bad.err;
}

}  // namespace
}  // namespace gaugepoint
