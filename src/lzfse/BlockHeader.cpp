#include "lzfse/BlockHeader.hpp"

#include "lzfse/BlockInput.hpp"

#include <array>
#include <string>

#include "lzfse/ByteOrder.hpp"
#include "lzfse/Fail.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

using Kind = lzfse::Error::Kind;

std::uint32_t bits(std::uint64_t word, unsigned from, unsigned width) {
    return static_cast<std::uint32_t>((word >> from) & ((std::uint64_t{1} << width) - 1));
}

[[noreturn]] void badHeader(const char* kind, std::size_t offset, const std::string& why) {
    fail(Kind::BadHeader, std::string("LZFSE ") + kind + " block" + at(offset) + ": " + why);
}

// Field checks common to both layouts; the payloads are not looked at.
void checkFields(const LzfseHeader& h, const char* kind, std::size_t offset) {
    if (h.literals > kMaxLiterals)
        badHeader(kind, offset, std::to_string(h.literals) + " literals, at most 40000 allowed");
    if (h.literals % 4 != 0)
        badHeader(kind, offset, "literal count " + std::to_string(h.literals) + " is not a multiple of 4");
    if (h.matches > kMaxMatches)
        badHeader(kind, offset, std::to_string(h.matches) + " matches, at most 10000 allowed");
    for (unsigned i = 0; i < 4; ++i) {
        if (h.literalStates[i] >= kLiteralStates)
            badHeader(kind, offset, "literal state " + std::to_string(h.literalStates[i]) + " is not below 1024");
    }
    if (h.lState >= kLStates || h.mState >= kMStates || h.dState >= kDStates)
        badHeader(kind, offset, "L/M/D states " + std::to_string(h.lState) + "/" + std::to_string(h.mState) +
                                    "/" + std::to_string(h.dState) + " are not below 64/64/256");
    if (h.literalBits < -8 || h.literalBits > 0 || h.lmdBits < -8 || h.lmdBits > 0)
        badHeader(kind, offset, "bit stream adjustments " + std::to_string(h.literalBits) + "/" +
                                    std::to_string(h.lmdBits) + " are not in -8..0");
    // The LMD payload starts with padding the decoder never reads; shorter is malformed.
    const std::uint32_t minLmd = h.lmdBits == 0 ? 7 : 8;
    if (h.lmdPayloadBytes < minLmd)
        badHeader(kind, offset, "LMD payload of " + std::to_string(h.lmdPayloadBytes) +
                                    " bytes is shorter than its " + std::to_string(minLmd) + "-byte minimum");
    // 40000 literals take at most 50000 bytes and 10000 triples at most 67508, so larger
    // payloads could never be read to their end; refusing them here also bounds what a
    // streaming decoder holds for one block.
    if (h.literalPayloadBytes > kMaxPayloadBytes || h.lmdPayloadBytes > kMaxPayloadBytes)
        badHeader(kind, offset, "payloads of " + std::to_string(h.literalPayloadBytes) + " and " +
                                    std::to_string(h.lmdPayloadBytes) + " bytes are more than any block can use");
}

// Reads the whole block (header and payloads) so the decoder may use it in place.
const std::uint8_t* requireBlock(BlockInput& input, const LzfseHeader& h, const char* kind, std::size_t offset) {
    const std::size_t total = h.headerBytes + std::size_t{h.literalPayloadBytes} + h.lmdPayloadBytes;
    return input.require((std::string(kind) + " block (header and payloads)").c_str(), offset, total);
}

// One frequency code, identified by its first (up to) 5 bits: the value is
// `value + ((bits >> 4) & mask)`, the code `length` bits long.
struct FrequencyCode {
    std::uint8_t length;
    std::uint16_t value;
    std::uint16_t mask;
};

constexpr std::array<FrequencyCode, 32> makeFrequencyCodes() {
    std::array<FrequencyCode, 32> t{};
    for (unsigned b = 0; b < 32; ++b) {
        if ((b & 1) == 0) {
            t[b] = {2, static_cast<std::uint16_t>((b >> 1) & 1), 0};
        } else if ((b & 2) == 0) {
            t[b] = {3, static_cast<std::uint16_t>(2 + ((b >> 2) & 1)), 0};
        } else if ((b & 4) == 0) {
            t[b] = {5, static_cast<std::uint16_t>(4 + ((b >> 3) & 3)), 0};
        } else if ((b & 8) == 0) {
            t[b] = {8, 8, 15};
        } else {
            t[b] = {14, 24, 1023};
        }
    }
    return t;
}

constexpr std::array<FrequencyCode, 32> kFrequencyCodes = makeFrequencyCodes();

// Reads the 360 prefix-coded frequencies of a bvx2 header from bytes [32, headerBytes).
// `accum` holds `held` unread bits; bits above them are zero or the stream's own next bits.
void readFrequencies(const std::uint8_t* block, std::size_t headerBytes, std::size_t offset,
                     std::uint16_t* freq) {
    if (headerBytes == kV2FixedHeaderBytes)
        fail(Kind::BadTable, "LZFSE bvx2 block" + at(offset) + " has no frequency tables");
    std::size_t pos = kV2FixedHeaderBytes;
    std::uint64_t accum = 0;
    unsigned held = 0;
    for (unsigned i = 0; i < kFrequencyCount; ++i) {
        if (held < 14) {  // the longest code
            if (headerBytes - pos >= 8) {
                accum |= load64(block + pos) << held;
                const unsigned bytes = (63 - held) >> 3;
                pos += bytes;
                held += 8 * bytes;
            } else {
                for (; held <= 56 && pos < headerBytes; held += 8) accum |= std::uint64_t{block[pos++]} << held;
            }
        }
        const FrequencyCode code = kFrequencyCodes[accum & 31];
        if (code.length > held)
            fail(Kind::BadTable, "LZFSE bvx2 block" + at(offset) + ": frequency table runs past its " +
                                     std::to_string(headerBytes) + "-byte header (value " + std::to_string(i) + ")");
        freq[i] = static_cast<std::uint16_t>(code.value + ((accum >> 4) & code.mask));
        accum >>= code.length;
        held -= code.length;
    }
    // The table must end in the header's last byte: fewer than 8 bits left unread.
    if (8 * (headerBytes - pos) + held >= 8)
        fail(Kind::BadTable, "LZFSE bvx2 block" + at(offset) + ": frequency table ends before its " +
                                 std::to_string(headerBytes) + "-byte header does");
}

// Prefix code of one frequency value (0..1047): returns the code, sets its length.
std::uint32_t frequencyCode(unsigned v, unsigned& len) {
    if (v < 2) return len = 2, v << 1;
    if (v < 4) return len = 3, 1 + ((v - 2) << 2);
    if (v < 8) return len = 5, 3 + ((v - 4) << 3);
    if (v < 24) return len = 8, 7 + ((v - 8) << 4);
    return len = 14, 15 + ((v - 24) << 4);
}

}  // namespace

LzfseHeader parseV2Header(BlockInput& input, std::size_t offset) {
    const std::uint8_t* p = input.require("bvx2 block header", offset, kV2FixedHeaderBytes);
    const std::uint64_t w0 = load64(p + 8), w1 = load64(p + 16), w2 = load64(p + 24);
    LzfseHeader h;
    h.rawBytes = load32(p + 4);
    h.literals = bits(w0, 0, 20);
    h.literalPayloadBytes = bits(w0, 20, 20);
    h.matches = bits(w0, 40, 20);
    h.literalBits = static_cast<int>(bits(w0, 60, 3)) - 7;
    for (unsigned i = 0; i < 4; ++i) h.literalStates[i] = static_cast<std::uint16_t>(bits(w1, 10 * i, 10));
    h.lmdPayloadBytes = bits(w1, 40, 20);
    h.lmdBits = static_cast<int>(bits(w1, 60, 3)) - 7;
    const std::uint32_t headerBytes = bits(w2, 0, 32);
    h.lState = static_cast<std::uint16_t>(bits(w2, 32, 10));
    h.mState = static_cast<std::uint16_t>(bits(w2, 42, 10));
    h.dState = static_cast<std::uint16_t>(bits(w2, 52, 10));
    if (headerBytes < kV2FixedHeaderBytes)
        badHeader("bvx2", offset, "header size " + std::to_string(headerBytes) + " is below 32");
    // 360 codes of at most 14 bits fill at most this much; a larger header always has
    // bytes left over after its tables.
    if (headerBytes > kMaxV2HeaderBytes)
        fail(Kind::BadTable, "LZFSE bvx2 block" + at(offset) + ": frequency table ends before its " +
                                 std::to_string(headerBytes) + "-byte header does");
    p = input.require("bvx2 block header with frequency tables", offset, headerBytes);
    h.headerBytes = headerBytes;
    readFrequencies(p, headerBytes, offset, h.freq.data());
    checkFields(h, "bvx2", offset);
    requireBlock(input, h, "bvx2", offset);
    return h;
}

LzfseHeader parseV1Header(BlockInput& input, std::size_t offset) {
    const std::uint8_t* p = input.require("bvx1 block header", offset, kV1HeaderBytes);
    LzfseHeader h;
    h.rawBytes = load32(p + 4);
    h.literals = load32(p + 12);
    h.matches = load32(p + 16);
    h.literalPayloadBytes = load32(p + 20);
    h.lmdPayloadBytes = load32(p + 24);
    h.literalBits = static_cast<std::int32_t>(load32(p + 28));
    for (unsigned i = 0; i < 4; ++i) h.literalStates[i] = load16(p + 32 + 2 * i);
    h.lmdBits = static_cast<std::int32_t>(load32(p + 40));
    h.lState = load16(p + 44);
    h.mState = load16(p + 46);
    h.dState = load16(p + 48);
    for (unsigned i = 0; i < kFrequencyCount; ++i) h.freq[i] = load16(p + 50 + 2 * i);
    h.headerBytes = kV1HeaderBytes;
    checkFields(h, "bvx1", offset);
    requireBlock(input, h, "bvx1", offset);
    return h;
}

std::size_t v2HeaderBytes(const LzfseHeader& h) {
    std::size_t bits = 0;
    for (unsigned i = 0; i < kFrequencyCount; ++i) {
        unsigned len;
        frequencyCode(h.freq[i], len);
        bits += len;
    }
    return kV2FixedHeaderBytes + (bits + 7) / 8;
}

void writeV2Header(const LzfseHeader& h, std::uint8_t* out) {
    std::uint8_t* p = out + kV2FixedHeaderBytes;
    std::uint64_t accum = 0;
    unsigned held = 0;
    for (unsigned i = 0; i < kFrequencyCount; ++i) {
        unsigned len;
        accum |= std::uint64_t{frequencyCode(h.freq[i], len)} << held;
        held += len;
        for (; held >= 8; held -= 8, accum >>= 8) *p++ = static_cast<std::uint8_t>(accum);
    }
    if (held > 0) *p = static_cast<std::uint8_t>(accum);

    const std::uint64_t w0 = std::uint64_t{h.literals} | std::uint64_t{h.literalPayloadBytes} << 20 |
                             std::uint64_t{h.matches} << 40 |
                             static_cast<std::uint64_t>(h.literalBits + 7) << 60;
    std::uint64_t w1 = std::uint64_t{h.lmdPayloadBytes} << 40 | static_cast<std::uint64_t>(h.lmdBits + 7) << 60;
    for (unsigned i = 0; i < 4; ++i) w1 |= std::uint64_t{h.literalStates[i]} << (10 * i);
    const std::uint64_t w2 = std::uint64_t{h.headerBytes} | std::uint64_t{h.lState} << 32 |
                             std::uint64_t{h.mState} << 42 | std::uint64_t{h.dState} << 52;
    storeLe<std::uint32_t>(out, kMagicV2);
    storeLe<std::uint32_t>(out + 4, h.rawBytes);
    storeLe<std::uint64_t>(out + 8, w0);
    storeLe<std::uint64_t>(out + 16, w1);
    storeLe<std::uint64_t>(out + 24, w2);
}

}  // namespace gaugepoint::lzfse::detail
