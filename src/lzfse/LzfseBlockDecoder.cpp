#include "lzfse/LzfseBlockDecoder.hpp"

#include <algorithm>
#include <cstdint>
#include <string>
#include <type_traits>

#include "lzfse/BitReader.hpp"
#include "lzfse/Copy.hpp"
#include "lzfse/Fail.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

using Kind = lzfse::Error::Kind;

static_assert(OutputBuffer::kSlack > kCopyOvershoot, "match and literal copies overshoot into the slack");

[[noreturn]] void blockError(Kind kind, const char* block, std::size_t offset, const std::string& why) {
    fail(kind, std::string("LZFSE ") + block + " block" + at(offset) + ": " + why);
}

// A well-formed stream is consumed exactly down to `floor`: bit 0 for literals, the top of
// the 64 padding bits for the LMD stream.
// Takes the cursor by value: a reader whose address escaped could not live in registers
// across the output stores (byte stores may alias anything).
void checkFullyRead(std::int64_t cursor, std::int64_t floor, const char* stream, const char* block,
                    std::size_t offset) {
    const std::int64_t left = cursor - floor;
    if (left < 0)
        blockError(Kind::BadPayload, block, offset,
                   std::string(stream) + " bit stream read " + std::to_string(-left) + " bits past its data");
    if (left > 0)
        blockError(Kind::BadPayload, block, offset,
                   std::string(stream) + " bit stream has " + std::to_string(left) + " unread bits");
}

// Failures of the triple loop, kept out of line so the loop carries no message building.
[[noreturn, gnu::cold, gnu::noinline]] void failLiterals(const char* block, std::size_t offset,
                                                         std::uint32_t triple, std::uint32_t literals) {
    blockError(Kind::BadPayload, block, offset,
               "triple " + std::to_string(triple) + " uses more literals than the block's " +
                   std::to_string(literals));
}

// The distance before any triple sets one: larger than any output, so the distance check
// fails for it.
constexpr std::size_t kNoDistance = SIZE_MAX;

[[noreturn, gnu::cold, gnu::noinline]] void failDistance(const char* block, std::size_t offset,
                                                         std::uint32_t triple, std::size_t distance,
                                                         std::size_t available) {
    blockError(Kind::BadDistance, block, offset,
               distance == kNoDistance ? "first triple repeats a distance that was never set"
                             : "triple " + std::to_string(triple) + " distance " + std::to_string(distance) +
                                   " reaches before the start of the output (" + std::to_string(available) +
                                   " bytes)");
}

[[noreturn, gnu::cold, gnu::noinline]] void failTooLong(const char* block, std::size_t offset,
                                                        std::uint32_t rawBytes) {
    blockError(Kind::SizeMismatch, block, offset,
               "triples produce more than the header's " + std::to_string(rawBytes) + " bytes");
}

}  // namespace

std::size_t LzfseBlockDecoder::decode(const std::uint8_t* block, std::size_t offset, const char* kind,
                                      const LzfseHeader& h, OutputBuffer& out) {
    out.checkLimit(h.rawBytes);
    out.expect(h.rawBytes);
    buildTables(h, kind, offset);
    const std::uint8_t* literalPayload = block + h.headerBytes;
    decodeLiterals(literalPayload, h, kind, offset);
    executeTriples(literalPayload + h.literalPayloadBytes, h, kind, offset, out);
    return offset + h.headerBytes + h.literalPayloadBytes + h.lmdPayloadBytes;
}

void LzfseBlockDecoder::buildTables(const LzfseHeader& h, const char* kind, std::size_t offset) {
    const bool ok = buildValueTable(h.lFreq(), kLCode, kLStates, lmd_, 0) &&
                    buildValueTable(h.mFreq(), kMCode, kMStates, lmd_, LmdTables::kMFirst) &&
                    buildValueTable(h.dFreq(), kDCode, kDStates, lmd_, LmdTables::kDFirst) &&
                    buildLiteralTable(h.literalFreq(), literalTable_);
    if (!ok)
        blockError(Kind::BadTable, kind, offset,
                   "a frequency table does not sum to its state count (64, 64, 256, 1024)");
    // The most bytes one triple of this block can produce: the largest L and M values of
    // the symbols its tables can decode.
    const auto largest = [](const std::uint16_t* freq, const ValueCode& code) {
        std::uint32_t most = 0;
        for (unsigned s = 0; s < code.symbols; ++s)
            if (freq[s] != 0) most = code.base[s] + (std::uint32_t{1} << code.extraBits[s]) - 1;
        return most;
    };
    // (At least 1: tables that only decode L = M = 0 are legal.)
    maxTripleBytes_ = std::max<std::size_t>(1, largest(h.lFreq(), kLCode) + largest(h.mFreq(), kMCode));
}

void LzfseBlockDecoder::decodeLiterals(const std::uint8_t* payload, const LzfseHeader& h,
                                       const char* kind, std::size_t offset) {
    BitReader in;
    if (!in.init(payload, h.literalPayloadBytes, h.literalBits))
        blockError(Kind::BadPayload, kind, offset, "literal bit stream has non-zero bits above its end");
    unsigned q0 = h.literalStates[0], q1 = h.literalStates[1], q2 = h.literalStates[2],
             q3 = h.literalStates[3];
    const LiteralTable& table = literalTable_;
    std::uint8_t* dst = literals_.data();
    std::uint8_t* const end = dst + h.literals;
    // Four literals take at most 40 bits, so one refill serves a group.
    const auto group = [&] {
        dst[0] = decodeLiteral(q0, table, in);
        dst[1] = decodeLiteral(q1, table, in);
        dst[2] = decodeLiteral(q2, table, in);
        dst[3] = decodeLiteral(q3, table, in);
        dst += 4;
    };
    while (dst != end) {
        std::size_t fast = std::min(in.safeRefills(), static_cast<std::size_t>(end - dst) / 4);
        if (fast == 0) {
            in.refill();
            group();
            continue;
        }
        for (; fast != 0; --fast) {
            in.refillUnchecked();
            group();
        }
    }
    checkFullyRead(in.cursor(), 0, "literal", kind, offset);
}

void LzfseBlockDecoder::executeTriples(const std::uint8_t* payload, const LzfseHeader& h,
                                       const char* kind, std::size_t offset, OutputBuffer& out) {
    BitReader in;
    if (!in.init(payload, h.lmdPayloadBytes, h.lmdBits))
        blockError(Kind::BadPayload, kind, offset, "LMD bit stream has non-zero bits above its end");
    // States index the whole of lmd_.
    unsigned l = h.lState, m = LmdTables::kMFirst + h.mState, d = LmdTables::kDFirst + h.dState;
    const std::uint8_t* lit = literals_.data();
    const std::uint8_t* const litEnd = lit + h.literals;
    std::size_t blockEnd = out.size() + h.rawBytes;
    // Positions in the output; byte stores may alias anything, so nothing in the loop is
    // re-read from `out`.
    std::uint8_t* base = out.begin();
    std::size_t pos = out.size();
    std::size_t room = std::min(out.capacity(), blockEnd);  // allocated (plus slack)
    std::size_t distance = kNoDistance;
    const std::uint32_t matches = h.matches;
    std::uint32_t left = matches;  // triples not yet started
    std::size_t batch = 0;         // triples of the current batch after this one
    // Index of the triple being decoded, for error messages.
    const auto index = [&] { return static_cast<std::uint32_t>(matches - left - batch - 1); };
    // Checked triples test that the reader stays in its payload and the output in its room;
    // a batch of unchecked ones is known to do both.
    const auto triple = [&](auto checked) {
        // One triple takes at most 14 + 17 + 23 = 54 bits.
        if constexpr (decltype(checked)::value) {
            in.refill();
        } else {
            in.refillUnchecked();
        }
        const std::size_t L = decodeValue(l, lmd_, in);
        const std::size_t M = decodeValue(m, lmd_, in);
        const std::size_t D = decodeValue(d, lmd_, in);
        distance = D != 0 ? D : distance;
        if (L > static_cast<std::size_t>(litEnd - lit)) [[unlikely]]
            failLiterals(kind, offset, index(), h.literals);
        if (distance > pos + L) [[unlikely]]
            failDistance(kind, offset, index(), distance, pos + L);
        if (decltype(checked)::value && L + M > room - pos) [[unlikely]] {
            if (L + M > blockEnd - pos) failTooLong(kind, offset, h.rawBytes);
            out.advance(pos - out.size());
            const std::size_t moved = out.ensure(L + M);
            pos -= moved;
            blockEnd -= moved;
            base = out.begin();
            room = std::min(out.capacity(), blockEnd);
        }
        std::uint8_t* dst = base + pos;
        // The literal buffer's slack covers the first step's overread.
        copy16(dst, lit);
        if (L > 16) [[unlikely]]
            wildCopy(dst + 16, lit + 16, L - 16);
        lit += L;
        copyMatch(dst + L, distance, M);
        pos += L + M;
    };
    while (left != 0) {
        // A refill moves the reader at most 8 bytes down its payload and a triple produces
        // at most maxTripleBytes_: this many triples need neither check.
        batch = std::min<std::size_t>({in.safeRefills(), left, (room - pos) / maxTripleBytes_});
        if (batch == 0) {
            --left;
            triple(std::true_type{});
            continue;
        }
        left -= static_cast<std::uint32_t>(batch);
        while (batch != 0) {
            --batch;
            triple(std::false_type{});
        }
    }
    out.advance(pos - out.size());
    if (pos != blockEnd)
        blockError(Kind::SizeMismatch, kind, offset,
                   "triples produce " + std::to_string(pos - (blockEnd - h.rawBytes)) +
                       " bytes, the header says " + std::to_string(h.rawBytes));
    checkFullyRead(in.cursor(), 8 * kLmdPaddingBytes, "LMD", kind, offset);
}

}  // namespace gaugepoint::lzfse::detail
