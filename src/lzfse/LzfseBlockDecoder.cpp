#include "lzfse/LzfseBlockDecoder.hpp"

#include <algorithm>
#include <string>

#include "lzfse/BitReader.hpp"
#include "lzfse/Copy.hpp"
#include "lzfse/Fail.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

using Kind = lzfse::Error::Kind;

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

}  // namespace

std::size_t LzfseBlockDecoder::decode(std::span<const std::uint8_t> input, std::size_t offset,
                                      const char* kind, const LzfseHeader& h, OutputBuffer& out) {
    out.checkLimit(h.rawBytes);
    out.expect(h.rawBytes);
    buildTables(h, kind, offset);
    const std::uint8_t* literalPayload = input.data() + offset + h.headerBytes;
    decodeLiterals(literalPayload, h, kind, offset);
    executeTriples(literalPayload + h.literalPayloadBytes, h, kind, offset, out);
    return offset + h.headerBytes + h.literalPayloadBytes + h.lmdPayloadBytes;
}

void LzfseBlockDecoder::buildTables(const LzfseHeader& h, const char* kind, std::size_t offset) {
    const bool ok = buildValueTable(h.lFreq(), kLCode, kLStates, lTable_.data()) &&
                    buildValueTable(h.mFreq(), kMCode, kMStates, mTable_.data()) &&
                    buildValueTable(h.dFreq(), kDCode, kDStates, dTable_.data()) &&
                    buildLiteralTable(h.literalFreq(), literalTable_.data());
    if (!ok)
        blockError(Kind::BadTable, kind, offset,
                   "a frequency table does not sum to its state count (64, 64, 256, 1024)");
}

void LzfseBlockDecoder::decodeLiterals(const std::uint8_t* payload, const LzfseHeader& h,
                                       const char* kind, std::size_t offset) {
    BitReader in;
    if (!in.init(payload, h.literalPayloadBytes, h.literalBits))
        blockError(Kind::BadPayload, kind, offset, "literal bit stream has non-zero bits above its end");
    unsigned q0 = h.literalStates[0], q1 = h.literalStates[1], q2 = h.literalStates[2],
             q3 = h.literalStates[3];
    const LiteralEntry* table = literalTable_.data();
    std::uint8_t* dst = literals_.data();
    // Four literals take at most 40 bits, so one refill serves a group.
    for (std::uint32_t i = 0; i < h.literals; i += 4) {
        in.refill();
        dst[i + 0] = decodeLiteral(q0, table, in);
        dst[i + 1] = decodeLiteral(q1, table, in);
        dst[i + 2] = decodeLiteral(q2, table, in);
        dst[i + 3] = decodeLiteral(q3, table, in);
    }
    checkFullyRead(in.cursor(), 0, "literal", kind, offset);
}

void LzfseBlockDecoder::executeTriples(const std::uint8_t* payload, const LzfseHeader& h,
                                       const char* kind, std::size_t offset, OutputBuffer& out) {
    BitReader in;
    if (!in.init(payload, h.lmdPayloadBytes, h.lmdBits))
        blockError(Kind::BadPayload, kind, offset, "LMD bit stream has non-zero bits above its end");
    unsigned l = h.lState, m = h.mState, d = h.dState;
    const std::uint8_t* lit = literals_.data();
    const std::uint8_t* const litEnd = lit + h.literals;
    const std::size_t blockEnd = out.size() + h.rawBytes;
    std::size_t pos = out.size();
    std::size_t room = std::min(out.capacity(), blockEnd);  // allocated (plus slack)
    std::uint32_t distance = 0;     // unset until the first triple gives one
    std::uint8_t* base = out.begin();
    for (std::uint32_t i = 0; i < h.matches; ++i) {
        // One triple takes at most 14 + 17 + 23 = 54 bits.
        in.refill();
        const std::uint32_t L = decodeValue(l, lTable_.data(), in);
        const std::uint32_t M = decodeValue(m, mTable_.data(), in);
        const std::uint32_t D = decodeValue(d, dTable_.data(), in);
        if (D != 0) distance = D;
        if (L > static_cast<std::size_t>(litEnd - lit))
            blockError(Kind::BadPayload, kind, offset,
                       "triple " + std::to_string(i) + " uses more literals than the block's " +
                           std::to_string(h.literals));
        if (distance == 0 || distance > pos + L)
            blockError(Kind::BadDistance, kind, offset,
                       distance == 0 ? "first triple repeats a distance that was never set"
                                     : "triple " + std::to_string(i) + " distance " + std::to_string(distance) +
                                           " reaches before the start of the output (" +
                                           std::to_string(pos + L) + " bytes)");
        if (pos + L + M > room) {
            if (L + M > blockEnd - pos)
                blockError(Kind::SizeMismatch, kind, offset,
                           "triples produce more than the header's " + std::to_string(h.rawBytes) + " bytes");
            out.advance(pos - out.size());
            out.ensure(L + M);
            room = std::min(out.capacity(), blockEnd);
            base = out.begin();
        }
        std::uint8_t* dst = base + pos;
        wildCopy(dst, lit, L);
        lit += L;
        copyMatch(dst + L, distance, M);
        pos += L + M;
    }
    out.advance(pos - out.size());
    if (pos != blockEnd)
        blockError(Kind::SizeMismatch, kind, offset,
                   "triples produce " + std::to_string(pos - (blockEnd - h.rawBytes)) +
                       " bytes, the header says " + std::to_string(h.rawBytes));
    checkFullyRead(in.cursor(), 8 * kLmdPaddingBytes, "LMD", kind, offset);
}

}  // namespace gaugepoint::lzfse::detail
