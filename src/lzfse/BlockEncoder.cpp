#include "lzfse/BlockEncoder.hpp"

#include <array>
#include <bit>
#include <cstring>

#include "lzfse/BitWriter.hpp"
#include "lzfse/BlockHeader.hpp"
#include "lzfse/Format.hpp"
#include "lzfse/Fse.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

// Written as sums of comparisons: the values vary too much for branches to be predicted.
unsigned lSymbol(std::uint32_t v) {
    const unsigned large = 16u + (v >= 20) + (v >= 28) + (v >= 60);
    return v < 16 ? v : large;
}

unsigned mSymbol(std::uint32_t v) {
    const unsigned large = 16u + (v >= 24) + (v >= 56) + (v >= 312);
    return v < 16 ? v : large;
}

// Symbol 4g+i has base 2^g (4+i) - 4 and g extra bits, so D+4 = 2^g (4+i) + extra.
unsigned dSymbol(std::uint32_t v) {
    const std::uint32_t x = v + 4;
    const unsigned g = static_cast<unsigned>(std::bit_width(x)) - 3;
    return 4 * g + ((x >> g) - 4);
}

// Everything needed to entropy-code one block's symbols.
struct Tables {
    std::array<EncoderEntry, kLSymbols> l;
    std::array<EncoderEntry, kMSymbols> m;
    std::array<EncoderEntry, kDSymbols> d;
    std::array<EncoderEntry, kLiteralSymbols> literal;
};

// Byte histogram in four interleaved parts, so runs of one byte value do not serialise on
// a single counter.
void countBytes(const std::uint8_t* bytes, std::size_t n, std::uint32_t* counts) {
    std::array<std::array<std::uint32_t, 256>, 4> part{};
    std::size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        ++part[0][bytes[i]];
        ++part[1][bytes[i + 1]];
        ++part[2][bytes[i + 2]];
        ++part[3][bytes[i + 3]];
    }
    for (; i < n; ++i) ++part[0][bytes[i]];
    for (unsigned b = 0; b < 256; ++b) counts[b] = part[0][b] + part[1][b] + part[2][b] + part[3][b];
}

// Literals are coded in the reverse of decoding order: last group of four first, and
// within a group literal 4g+3 (state q3) down to 4g (state q0). A group is at most 40 bits.
void writeLiterals(LzfseHeader& h, const std::uint8_t* literals, std::size_t count, const Tables& t,
                   std::uint8_t* out) {
    BitWriter w(out);
    unsigned q0 = 0, q1 = 0, q2 = 0, q3 = 0;
    for (std::size_t i = count; i != 0; i -= 4) {
        encodeSymbol(q3, kLiteralStates, t.literal[literals[i - 1]], w);
        encodeSymbol(q2, kLiteralStates, t.literal[literals[i - 2]], w);
        encodeSymbol(q1, kLiteralStates, t.literal[literals[i - 3]], w);
        encodeSymbol(q0, kLiteralStates, t.literal[literals[i - 4]], w);
        w.flush();
    }
    h.literalBits = w.finish();
    h.literalPayloadBytes = static_cast<std::uint32_t>(w.bytes());
    h.literalStates = {static_cast<std::uint16_t>(q0), static_cast<std::uint16_t>(q1),
                       static_cast<std::uint16_t>(q2), static_cast<std::uint16_t>(q3)};
}

}  // namespace

BlockEncoder::BlockEncoder(std::vector<std::uint8_t>& out)
    : out_(out),
      triple_(std::make_unique_for_overwrite<Triple[]>(kMaxMatches)),
      literal_(std::make_unique_for_overwrite<std::uint8_t[]>(kMaxLiterals + 16)) {}

void BlockEncoder::append(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M,
                          std::uint32_t D) noexcept {
    triple_[triples_++] = {L, M, D, 0, 0, 0};
    std::uint8_t* dst = literal_.get() + literalCount_;
    // fits() keeps 16 bytes of the buffer free, so a short run may be moved as one word.
    if (L <= 16 && inputEnd_ - literals >= 16) {
        std::memcpy(dst, literals, 16);
    } else {
        std::memcpy(dst, literals, L);
    }
    literalCount_ += L;
}

bool BlockEncoder::tryAddMatch(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M,
                               std::uint32_t D) {
    while (L > kMaxL) {
        if (!fits(kMaxL)) return false;
        append(literals, kMaxL, 0, 1);
        literals += kMaxL;
        L -= kMaxL;
    }
    while (M > kMaxM) {
        if (!fits(L)) return false;
        append(literals, L, kMaxM, D);
        literals += L;
        L = 0;
        M -= kMaxM;
    }
    if (L == 0 && M == 0) return true;
    if (!fits(L)) return false;
    append(literals, L, M, D);
    return true;
}

void BlockEncoder::addMatchSlow(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M,
                                std::uint32_t D) {
    const std::size_t triples = triples_, bytes = literalCount_;
    if (tryAddMatch(literals, L, M, D)) return;
    triples_ = triples;
    literalCount_ = bytes;
    flush();
    tryAddMatch(literals, L, M, D);
}

void BlockEncoder::flush() {
    if (triples_ == 0 && literalCount_ == 0) return;
    while (literalCount_ % 4 != 0) literal_[literalCount_++] = 0;
    LzfseHeader h;
    h.literals = static_cast<std::uint32_t>(literalCount_);
    h.matches = static_cast<std::uint32_t>(triples_);

    // Distances equal to the previous triple's are sent as 0 ("same again"); count symbols.
    // Counted in two halves (even and odd triples), so a symbol that repeats does not
    // wait on its own previous increment.
    std::array<std::array<std::uint32_t, kLSymbols + kMSymbols + kDSymbols>, 2> symbolCount{};
    std::array<std::uint32_t, kLiteralSymbols> literalCount{};
    std::uint64_t raw = 0;
    std::uint32_t previous = 0;
    for (std::size_t i = 0; i < triples_; ++i) {
        Triple& t = triple_[i];
        raw += t.L + t.M;
        const std::uint32_t D = t.D == previous ? 0 : t.D;
        previous = t.D;
        t.D = D;
        t.lSymbol = static_cast<std::uint8_t>(lSymbol(t.L));
        t.mSymbol = static_cast<std::uint8_t>(mSymbol(t.M));
        t.dSymbol = static_cast<std::uint8_t>(dSymbol(D));
        std::uint32_t* counts = symbolCount[i & 1].data();
        ++counts[t.lSymbol];
        ++counts[kLSymbols + t.mSymbol];
        ++counts[kLSymbols + kMSymbols + t.dSymbol];
    }
    std::array<std::uint32_t, kLSymbols + kMSymbols + kDSymbols> counts;
    for (std::size_t i = 0; i < counts.size(); ++i) counts[i] = symbolCount[0][i] + symbolCount[1][i];
    const std::uint32_t* lCount = counts.data();
    const std::uint32_t* mCount = lCount + kLSymbols;
    const std::uint32_t* dCount = mCount + kMSymbols;
    countBytes(literal_.get(), literalCount_, literalCount.data());
    h.rawBytes = static_cast<std::uint32_t>(raw);
    std::uint16_t* f = h.freq.data();
    normaliseCounts(lCount, kLSymbols, kLStates, f);
    normaliseCounts(mCount, kMSymbols, kMStates, f + kLSymbols);
    normaliseCounts(dCount, kDSymbols, kDStates, f + kLSymbols + kMSymbols);
    normaliseCounts(literalCount.data(), kLiteralSymbols, kLiteralStates, f + kLSymbols + kMSymbols + kDSymbols);
    Tables t;
    buildEncoderTable(h.lFreq(), kLSymbols, kLStates, t.l.data());
    buildEncoderTable(h.mFreq(), kMSymbols, kMStates, t.m.data());
    buildEncoderTable(h.dFreq(), kDSymbols, kDStates, t.d.data());
    buildEncoderTable(h.literalFreq(), kLiteralSymbols, kLiteralStates, t.literal.data());

    // The block is written in place: header size first (it depends only on the
    // frequencies), then both payloads, then the header with their sizes and final states.
    // Room: literals take at most 10 bits each, a triple at most 54 bits, and each writer
    // may store 8 bytes past its end.
    h.headerBytes = v2HeaderBytes(h);
    const std::size_t start = out_.size();
    const std::size_t room = h.headerBytes + literalCount_ * 10 / 8 + 1 + kLmdPaddingBytes + triples_ * 7 + 8;
    out_.resize(start + room);
    std::uint8_t* const block = out_.data() + start;
    writeLiterals(h, literal_.get(), literalCount_, t, block + h.headerBytes);

    // Triples are coded last to first, each as D, M, L (value extra bits, then the symbol),
    // so the decoder reads L, M, D of the first triple first.
    BitWriter w(block + h.headerBytes + h.literalPayloadBytes);
    w.write(0, 32);
    w.flush();
    w.write(0, 32);
    w.flush();
    unsigned l = 0, m = 0, d = 0;
    for (std::size_t i = triples_; i-- != 0;) {
        const Triple tr = triple_[i];
        const unsigned ds = tr.dSymbol, ms = tr.mSymbol, ls = tr.lSymbol;
        w.write(tr.D - kDCode.base[ds], kDCode.extraBits[ds]);
        encodeSymbol(d, kDStates, t.d[ds], w);
        w.write(tr.M - kMCode.base[ms], kMCode.extraBits[ms]);
        encodeSymbol(m, kMStates, t.m[ms], w);
        w.write(tr.L - kLCode.base[ls], kLCode.extraBits[ls]);
        encodeSymbol(l, kLStates, t.l[ls], w);
        w.flush();
    }
    h.lmdBits = w.finish();
    h.lmdPayloadBytes = static_cast<std::uint32_t>(w.bytes());
    h.lState = static_cast<std::uint16_t>(l);
    h.mState = static_cast<std::uint16_t>(m);
    h.dState = static_cast<std::uint16_t>(d);
    writeV2Header(h, block);
    out_.resize(start + h.headerBytes + h.literalPayloadBytes + h.lmdPayloadBytes);
    triples_ = 0;
    literalCount_ = 0;
}

}  // namespace gaugepoint::lzfse::detail
