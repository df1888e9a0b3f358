// Malformed and hostile streams: each must fail with an lzfse::Error of the right kind whose
// message says what was wrong, never read or write out of bounds (run under ASan), and never
// produce more than the caller's limit.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "LzfseTestSupport.hpp"
#include "lzfse/Lzfse.hpp"

namespace {

using namespace lzfse_test;
namespace lzfse = gaugepoint::lzfse;
using Kind = lzfse::Error::Kind;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Bytes kEnd = text("bvx$");
const Bytes kEndInstruction = {0x06, 0, 0, 0, 0, 0, 0, 0};
const Bytes kAbc = {0xE3, 'a', 'b', 'c'};  // small literal, L = 3

Bytes lzvnBlock(std::uint32_t rawBytes, const Bytes& payload) {
    Bytes b = text("bvxn");
    put32(b, rawBytes);
    put32(b, static_cast<std::uint32_t>(payload.size()));
    return b + payload;
}

Bytes rawBlock(std::uint32_t announced, const Bytes& data) {
    Bytes b = text("bvx-");
    put32(b, announced);
    return b + data;
}

// text-4096 is a single bvx2 block; W0, W1, W2 are the packed header words at 8, 16, 24.
Bytes v2With(std::size_t word, unsigned from, unsigned width, std::uint64_t value) {
    Bytes b = readVector("text-4096.lzfse");
    const std::size_t at = 8 + 8 * word;
    const std::uint64_t mask = ((std::uint64_t{1} << width) - 1) << from;
    set64(b, at, (get64(b, at) & ~mask) | (value << from & mask));
    return b;
}

Bytes v1WithInt(std::size_t at, std::int32_t value) {
    Bytes b = readVector("v1-prose-20k.lzfse");
    for (int i = 0; i < 4; ++i) b.at(at + i) = static_cast<std::uint8_t>(static_cast<std::uint32_t>(value) >> (8 * i));
    return b;
}

// A bvx1 block whose L, M and D tables each give all their states to one symbol, so those
// symbols cost no bits: every triple is (lSymbol, mSymbol, dSymbol) plus the values' extra
// bits, which come from `lmd`. Literal frequencies as given (byte, frequency).
struct V1 {
    std::uint32_t rawBytes, literals, matches;
    unsigned lSymbol, mSymbol, dSymbol;
    std::vector<std::pair<std::uint8_t, std::uint16_t>> literalFreq;
    Bytes literalPayload;
    Bytes lmd = Bytes(8, 0);  // the 8 padding bytes alone
};

Bytes v1Block(const V1& v) {
    const auto put16 = [](Bytes& b, unsigned x) {
        b.push_back(static_cast<std::uint8_t>(x));
        b.push_back(static_cast<std::uint8_t>(x >> 8));
    };
    Bytes b = text("bvx1");
    for (std::uint32_t x : {v.rawBytes, static_cast<std::uint32_t>(v.literalPayload.size() + v.lmd.size()), v.literals,
                            v.matches, static_cast<std::uint32_t>(v.literalPayload.size()),
                            static_cast<std::uint32_t>(v.lmd.size()), 0u})
        put32(b, x);  // ... literal_bits 0
    b.insert(b.end(), 8, 0);  // literal states
    put32(b, 0);               // lmd_bits
    b.insert(b.end(), 6, 0);  // L, M, D states
    for (unsigned s = 0; s < 20; ++s) put16(b, s == v.lSymbol ? 64 : 0);
    for (unsigned s = 0; s < 20; ++s) put16(b, s == v.mSymbol ? 64 : 0);
    for (unsigned s = 0; s < 64; ++s) put16(b, s == v.dSymbol ? 256 : 0);
    std::vector<unsigned> literal(256, 0);
    for (const auto& [byte, f] : v.literalFreq) literal[byte] = f;
    for (unsigned f : literal) put16(b, f);
    b.insert(b.end(), 2, 0);
    return b + v.literalPayload + v.lmd + kEnd;
}

const std::vector<std::pair<std::uint8_t, std::uint16_t>> kOnlyA = {{'a', 1024}};

struct Case {
    const char* name;
    Bytes stream;
    Kind kind;
    const char* message;  // must appear in what()
    friend void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }
};

std::vector<Case> cases() {
    const Bytes v2 = readVector("text-4096.lzfse");
    Bytes rawSizeOff = v2;
    rawSizeOff[4] ^= 1;
    Bytes badTable = v2;
    badTable[40] ^= 0x10;
    Bytes headerPastEnd = v2With(2, 0, 32, 600);
    headerPastEnd.resize(400);
    return {
        {"empty_input", {}, Kind::Truncated, "block magic needs 4 bytes at offset 0, 0 remain"},
        {"partial_magic", text("bvx"), Kind::Truncated, "block magic needs 4 bytes at offset 0, 3 remain"},
        {"missing_end_marker", rawBlock(3, text("abc")), Kind::Truncated, "ends at offset 11 without the end-of-stream marker"},
        {"bad_magic", text("bvx3") + kEnd, Kind::BadMagic, "unknown block magic \"bvx3\""},
        {"raw_header_cut", text("bvx-") + Bytes{1, 0}, Kind::Truncated, "bvx- block header needs 8 bytes at offset 0, 6 remain"},
        {"raw_length_past_end", rawBlock(100, text("abc")), Kind::Truncated, "bvx- block data needs 100 bytes at offset 8, 3 remain"},
        {"lzvn_header_cut", text("bvxn") + Bytes{3, 0, 0, 0}, Kind::Truncated, "bvxn block header needs 12 bytes"},
        {"lzvn_payload_past_end", text("bvxn") + Bytes{3, 0, 0, 0, 99, 0, 0, 0} + kAbc, Kind::Truncated, "bvxn block payload needs 99 bytes at offset 12, 4 remain"},
        {"lzvn_distance_before_output", lzvnBlock(6, kAbc + Bytes{0x00, 10} + kEndInstruction) + kEnd, Kind::BadDistance, "distance 10 reaches before the start of the output (3 bytes)"},
        {"lzvn_distance_zero", lzvnBlock(6, kAbc + Bytes{0x00, 0} + kEndInstruction) + kEnd, Kind::BadDistance, "match without a distance"},
        {"lzvn_undefined_opcode", lzvnBlock(4, kAbc + Bytes{0x70, 0} + kEndInstruction) + kEnd, Kind::BadOpcode, "undefined opcode 0x70"},
        {"lzvn_undefined_opcode_d0", lzvnBlock(4, kAbc + Bytes{0xD3} + kEndInstruction) + kEnd, Kind::BadOpcode, "undefined opcode 0xd3"},
        {"lzvn_match_before_any_distance", lzvnBlock(6, kAbc + Bytes{0xF3} + kEndInstruction) + kEnd, Kind::BadDistance, "match without a distance"},
        {"lzvn_fewer_bytes_than_header", lzvnBlock(5, kAbc + kEndInstruction) + kEnd, Kind::SizeMismatch, "block produced 3 bytes, the header says 5"},
        {"lzvn_more_bytes_than_header", lzvnBlock(2, kAbc + kEndInstruction) + kEnd, Kind::SizeMismatch, "more than the header's 2 bytes"},
        {"lzvn_no_end_instruction", lzvnBlock(4, kAbc + Bytes{0xE1, 'x'}) + kEnd, Kind::BadPayload, "runs past the payload's end"},
        {"lzvn_bytes_after_end_instruction", lzvnBlock(3, kAbc + kEndInstruction + Bytes{0}) + kEnd, Kind::BadPayload, "1 payload bytes follow the end instruction"},
        {"v2_truncated", Bytes(v2.begin(), v2.begin() + 500), Kind::Truncated, "bvx2 block (header and payloads) needs"},
        {"v2_header_size_past_end", headerPastEnd, Kind::Truncated, "bvx2 block header with frequency tables needs 600 bytes"},
        // No header is larger than its 360 frequency codes can fill: refused before reading it.
        {"v2_header_larger_than_any_tables", v2With(2, 0, 32, 100000), Kind::BadTable, "frequency table ends before its 100000-byte header does"},
        {"v2_header_size_zero", v2With(2, 0, 32, 0), Kind::BadHeader, "header size 0 is below 32"},
        {"v2_all_zero_header", text("bvx2") + Bytes(28, 0) + kEnd, Kind::BadHeader, "header size 0 is below 32"},
        {"v2_no_frequency_tables", v2With(2, 0, 32, 32), Kind::BadTable, "has no frequency tables"},
        {"v2_too_many_literals", v2With(0, 0, 20, 40004), Kind::BadHeader, "40004 literals"},
        {"v2_literal_count_not_multiple_of_4", v2With(0, 0, 20, 1001), Kind::BadHeader, "not a multiple of 4"},
        {"v2_too_many_matches", v2With(0, 40, 20, 10001), Kind::BadHeader, "10001 matches"},
        {"v2_l_state_out_of_range", v2With(2, 32, 10, 64), Kind::BadHeader, "L/M/D states 64/"},
        {"v2_lmd_payload_too_short", v2With(1, 40, 20, 5), Kind::BadHeader, "shorter than its 8-byte minimum"},
        {"v2_raw_size_differs", rawSizeOff, Kind::SizeMismatch, "the header says"},
        {"v2_bits_above_stream_end", v2With(0, 60, 3, 0), Kind::BadPayload, "literal bit stream has non-zero bits above its end"},
        {"v1_literal_bits_positive", v1WithInt(28, 1), Kind::BadHeader, "not in -8..0"},
        {"v1_lmd_bits_below_range", v1WithInt(40, -9), Kind::BadHeader, "not in -8..0"},
        {"v1_too_many_matches", v1WithInt(16, 10001), Kind::BadHeader, "10001 matches"},
        {"v1_payload_past_end", v1WithInt(20, 1 << 19), Kind::Truncated, "bvx1 block (header and payloads) needs"},
        {"v1_payload_larger_than_any_block", v1WithInt(20, 1 << 30), Kind::BadHeader, "bytes are more than any block can use"},
        // Distances reach into earlier blocks, but the LZVN previous distance does not carry over.
        {"lzvn_previous_distance_reset_per_block",
         lzvnBlock(6, kAbc + Bytes{0x00, 3} + kEndInstruction) + lzvnBlock(3, Bytes{0xF3} + kEndInstruction) + kEnd,
         Kind::BadDistance, "match without a distance"},
        {"v2_corrupt_frequency_table", badTable, Kind::BadTable, "frequency table"},
        // Triples decoded in the LZFSE loop (L and M symbols below 16 are their value; D symbol
        // 0 repeats the distance, symbol 1 is distance 1).
        {"v1_first_triple_repeats_unset_distance", v1Block({4, 4, 1, 1, 3, 0, kOnlyA, {}}), Kind::BadDistance,
         "first triple repeats a distance that was never set"},
        {"v1_triple_uses_more_literals_than_decoded", v1Block({12, 4, 2, 3, 3, 1, kOnlyA, {}}), Kind::BadPayload,
         "triple 1 uses more literals than the block's 4"},
        // The same in a batch of triples decoded without per-triple bounds checks: a long LMD
        // payload and room for several 315-byte triples (M symbol 19 is 312 + 11 extra bits).
        {"v1_batched_triple_uses_more_literals", v1Block({10000, 4, 3, 3, 19, 1, kOnlyA, {}, Bytes(64, 0)}),
         Kind::BadPayload, "triple 1 uses more literals than the block's 4"},
        {"v1_triples_produce_more_than_announced", v1Block({2, 4, 1, 1, 3, 1, kOnlyA, {}}), Kind::SizeMismatch,
         "triples produce more than the header's 2 bytes"},
        // L symbol 16 has 2 extra bits: read from the padding, below the LMD data.
        {"v1_lmd_stream_read_into_padding", v1Block({19, 16, 1, 16, 3, 1, kOnlyA, {}}), Kind::BadPayload,
         "LMD bit stream read 2 bits past its data"},
        // Two literal symbols of 512 states take a bit each; the payload is empty.
        {"v1_literal_stream_read_below_start", v1Block({0, 4, 0, 0, 0, 0, {{'a', 512}, {'b', 512}}, {}}),
         Kind::BadPayload, "literal bit stream read 4 bits past its data"},
        {"v1_literal_stream_not_read_to_start", v1Block({4, 4, 1, 4, 0, 1, kOnlyA, Bytes{0}}), Kind::BadPayload,
         "literal bit stream has 8 unread bits"},
    };
}

class HostileInput : public testing::TestWithParam<Case> {};

TEST_P(HostileInput, FailsWithKindAndMessage) {
    try {
        lzfse::decompress(GetParam().stream);
        FAIL() << "decoded without error";
    } catch (const lzfse::Error& e) {
        EXPECT_EQ(e.kind(), GetParam().kind) << e.what();
        EXPECT_NE(std::string(e.what()).find(GetParam().message), std::string::npos) << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, HostileInput, testing::ValuesIn(cases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(HostileInputBoundaries, MatchesMayReachTheFirstByteOfEarlierBlocks) {
    // Raw "abc", then an LZVN block copying 3 bytes from distance 3 (the stream's first byte)
    // and, in a further block, 6 from distance 6 (again the first byte).
    const Bytes stream = rawBlock(3, text("abc")) + lzvnBlock(3, Bytes{0x00, 3} + kEndInstruction) +
                         lzvnBlock(6, Bytes{0x18, 6} + kEndInstruction) + kEnd;
    EXPECT_EQ(lzfse::decompress(stream), text("abcabcabcabc"));
}

// Triples with L = M = 0 produce nothing but are legal, however many there are: here 448,
// each reading one extra bit of its distance (D symbol 4: 4 or 5) from a 64-byte LMD payload.
TEST(HostileInputBoundaries, TriplesThatProduceNothingDecode) {
    const Bytes stream = rawBlock(10, text("0123456789")) + v1Block({0, 4, 448, 0, 0, 4, kOnlyA, {}, Bytes(64, 0)});
    EXPECT_EQ(lzfse::decompress(stream), text("0123456789"));
}

TEST(HostileInputLimits, OutputLimitIsExactAndEnforcedBeforeAllocation) {
    const Bytes stream = readVector("json-200k.lzfse");
    const std::size_t size = readVector("json-200k.bin").size();
    EXPECT_EQ(lzfse::decompress(stream, size).size(), size);
    for (std::size_t limit : {std::size_t{0}, std::size_t{1000}, size - 1}) {
        try {
            lzfse::decompress(stream, limit);
            FAIL() << "limit " << limit << " not enforced";
        } catch (const lzfse::Error& e) {
            EXPECT_EQ(e.kind(), Kind::OutputLimit) << e.what();
        }
    }
}

// A reused buffer larger than the limit must not raise it, for any block kind; on error the
// buffer is left empty.
TEST(HostileInputLimits, ReusedBufferLargerThanTheLimitDoesNotRaiseIt) {
    const std::vector<std::pair<Bytes, std::size_t>> streams = {
        {rawBlock(100, Bytes(100, 'r')) + kEnd, 100},
        {readVector("lzvn-example.lzfse"), 50},
        {readVector("json-200k.lzfse"), readVector("json-200k.bin").size()},
    };
    for (const auto& [stream, size] : streams) {
        Bytes out(1u << 20, 0xAA);
        try {
            lzfse::decompressInto(stream, out, size - 1);
            FAIL() << "limit " << size - 1 << " not enforced";
        } catch (const lzfse::Error& e) {
            EXPECT_EQ(e.kind(), Kind::OutputLimit) << e.what();
        }
        EXPECT_TRUE(out.empty());
    }
}

TEST(HostileInputLimits, SmallStreamThatExpandsHugelyStopsAtTheLimit) {
    const Bytes bomb = lzfse::compress(run(32u << 20, 0));
    ASSERT_LT(bomb.size(), 64u << 10);
    EXPECT_THROW(lzfse::decompress(bomb, 1u << 20), lzfse::Error);
}

// Every prefix of a multi-kind stream is truncated somewhere: always an Error, never a crash.
TEST(HostileInputMutations, EveryPrefixFails) {
    const Bytes stream = readVector("blocks-mixed.lzfse");
    for (std::size_t n = 0; n + 4 < stream.size(); n += (n < 1100 ? 1 : 7)) {
        const Bytes prefix(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(n));
        EXPECT_THROW(lzfse::decompress(prefix), lzfse::Error) << "prefix " << n;
    }
}

// Random byte damage must end in a clean Error or some output, within the limit.
TEST(HostileInputMutations, RandomDamageNeverEscapesTheDecoder) {
    std::mt19937 rng(99);
    for (const char* name : {"blocks-mixed.lzfse", "random-100k.lzfse", "text-1024.lzfse"}) {
        const Bytes original = readVector(name);
        for (int i = 0; i < 300; ++i) {
            Bytes damaged = original;
            for (int k = 0; k < 1 + static_cast<int>(rng() % 4); ++k) damaged[rng() % damaged.size()] ^= static_cast<std::uint8_t>(1 + rng() % 255);
            try {
                EXPECT_LE(lzfse::decompress(damaged, 1u << 20).size(), 1u << 20);
            } catch (const lzfse::Error&) {
            }
        }
    }
}

}  // namespace
