// The streaming codec against the in-memory one: the same stream bytes for every input
// (including inputs longer than the encoder's window and with matches longer than its
// look-ahead), the same output and the same errors when decoding, whatever sizes the
// source hands out.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "LzfseTestSupport.hpp"
#include "lzfse/Lzfse.hpp"

namespace {

using namespace lzfse_test;
namespace lzfse = gaugepoint::lzfse;

// Hands out the bytes in reads of irregular sizes, as a pipe does.
class ChoppySource : public lzfse::Source {
public:
    explicit ChoppySource(const Bytes& bytes) : bytes_(bytes) {}
    std::size_t read(std::uint8_t* buffer, std::size_t n) override {
        const std::size_t give = std::min({n, bytes_.size() - at_, std::size_t{1} + rng_() % 70000});
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(at_), give, buffer);
        at_ += give;
        return give;
    }
    std::size_t consumed() const { return at_; }

private:
    const Bytes& bytes_;
    std::size_t at_ = 0;
    std::mt19937 rng_{5};
};

class Collector : public lzfse::Sink {
public:
    void write(const std::uint8_t* bytes, std::size_t n) override { bytes_.insert(bytes_.end(), bytes, bytes + n); }
    Bytes bytes_;
};

Bytes streamCompress(const Bytes& input) {
    ChoppySource source(input);
    Collector sink;
    lzfse::compress(source, sink);
    return sink.bytes_;
}

Bytes streamDecompress(const Bytes& stream, std::uint64_t limit = 1u << 30) {
    ChoppySource source(stream);
    Collector sink;
    lzfse::decompress(source, sink, limit);
    return sink.bytes_;
}

Bytes repeated(const Bytes& unit, std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = unit[i % unit.size()];
    return b;
}

struct Input {
    const char* name;
    Bytes bytes;
};

std::vector<Input> inputs() {
    Bytes periodic = repeated(randomBytes(100000, 3), 11u << 20);
    for (std::size_t i = 1u << 20; i < periodic.size(); i += 1234567) periodic[i] ^= 0x40;  // breaks ties
    Bytes zerosThenText = run(12u << 20, 0);
    const Bytes text = wordText(3u << 20, 9);
    zerosThenText.insert(zerosThenText.end(), text.begin(), text.end());
    return {
        {"empty", {}},
        {"short", wordText(100, 1)},
        {"just_below_lzfse", wordText(4095, 2)},
        {"just_lzfse", wordText(4096, 2)},
        {"mixed_20m", repeated(readVector("mixed-2m.bin"), 20u << 20)},
        {"periodic_11m", periodic},
        {"zeros_then_text", zerosThenText},
        {"random_9m", randomBytes(9u << 20, 4)},
    };
}

TEST(Streaming, CompressWritesTheInMemoryStreamAndDecompressGivesTheInputBack) {
    for (const auto& [name, bytes] : inputs()) {
        const Bytes stream = lzfse::compress(bytes);
        ASSERT_EQ(streamCompress(bytes), stream) << name;
        ASSERT_EQ(streamDecompress(stream), bytes) << name;
    }
}

// A stream that decodes to far more than the decoder holds, through every block kind and with
// matches reaching back across hand-overs to the sink.
TEST(Streaming, DecodesLongStreamsOfEveryBlockKind) {
    const Bytes lzvn = readVector("lzvn-example.lzfse"), blocks = readVector("blocks-mixed.lzfse");
    Bytes stream, expected;
    const Bytes bulk = lzfse::compress(repeated(readVector("prose-20k.bin"), 12u << 20));
    stream.insert(stream.end(), bulk.begin(), bulk.end() - 4);  // without its end marker
    expected = repeated(readVector("prose-20k.bin"), 12u << 20);
    for (const Bytes* part : {&lzvn, &blocks}) stream.insert(stream.end(), part->begin(), part->end() - 4);
    for (const char* name : {"lzvn-example.bin", "blocks-mixed.bin"}) {
        const Bytes b = readVector(name);
        expected.insert(expected.end(), b.begin(), b.end());
    }
    put32(stream, 0x24787662);  // bvx$
    EXPECT_EQ(streamDecompress(stream), expected);
    EXPECT_EQ(lzfse::decompress(stream, expected.size()), expected);
}

TEST(Streaming, StopsAtTheEndMarkerAndEnforcesTheLimit) {
    Bytes stream = readVector("json-200k.lzfse");
    const std::size_t size = readVector("json-200k.bin").size();
    stream.resize(stream.size() + 100000, 0xEE);  // not read: the stream ended before
    ChoppySource source(stream);
    Collector sink;
    lzfse::decompress(source, sink, size);
    EXPECT_EQ(sink.bytes_.size(), size);
    try {
        streamDecompress(stream, size - 1);
        FAIL() << "limit not enforced";
    } catch (const lzfse::Error& e) {
        EXPECT_EQ(e.kind(), lzfse::Error::Kind::OutputLimit) << e.what();
    }
}

// Damaged streams fail the same way streaming as in memory.
TEST(Streaming, DamagedStreamsFailWithTheSameErrors) {
    std::mt19937 rng(17);
    for (const char* name : {"blocks-mixed.lzfse", "json-200k.lzfse", "lzvn-example.lzfse"}) {
        const Bytes original = readVector(name);
        for (int i = 0; i < 150; ++i) {
            Bytes damaged = original;
            if (i % 3 == 0) damaged.resize(rng() % damaged.size());
            else damaged[rng() % damaged.size()] ^= static_cast<std::uint8_t>(1 + rng() % 255);
            std::string memory = "ok", streamed = "ok";
            Bytes a, b;
            try {
                a = lzfse::decompress(damaged, 1u << 20);
            } catch (const lzfse::Error& e) {
                memory = e.what();
            }
            try {
                b = streamDecompress(damaged, 1u << 20);
            } catch (const lzfse::Error& e) {
                streamed = e.what();
            }
            ASSERT_EQ(memory, streamed) << name << " damage " << i;
            ASSERT_EQ(a, b) << name << " damage " << i;
        }
    }
}

}  // namespace
