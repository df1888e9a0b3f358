#include "lzfse/BlockEncoder.hpp"

#include <array>
#include <bit>

#include "lzfse/BitWriter.hpp"
#include "lzfse/BlockHeader.hpp"
#include "lzfse/Format.hpp"
#include "lzfse/Fse.hpp"

namespace gaugepoint::lzfse::detail {

namespace {

// Block fill limits: the decoder allows 10000 triples and 40000 literals; these margins
// (the platform encoder's) leave it 8 triples and 16 literals to spare.
constexpr std::size_t kTripleMargin = 8;
constexpr std::size_t kLiteralMargin = 16;

unsigned lSymbol(std::uint32_t v) {
    if (v < 16) return v;
    return v < 20 ? 16 : v < 28 ? 17 : v < 60 ? 18 : 19;
}

unsigned mSymbol(std::uint32_t v) {
    if (v < 16) return v;
    return v < 24 ? 16 : v < 56 ? 17 : v < 312 ? 18 : 19;
}

// Symbol 4g+i has base 2^g (4+i) - 4 and g extra bits, so D+4 = 2^g (4+i) + extra.
unsigned dSymbol(std::uint32_t v) {
    const std::uint32_t x = v + 4;
    const unsigned g = static_cast<unsigned>(std::bit_width(x)) - 3;
    return 4 * g + ((x >> g) - 4);
}

struct Coded {
    std::uint8_t l, m, d;
};

// Everything needed to entropy-code one block's symbols.
struct Tables {
    std::array<EncoderEntry, kLSymbols> l;
    std::array<EncoderEntry, kMSymbols> m;
    std::array<EncoderEntry, kDSymbols> d;
    std::array<EncoderEntry, kLiteralSymbols> literal;
};

void buildTables(LzfseHeader& h, const std::vector<Coded>& coded, const std::vector<std::uint8_t>& literals,
                 Tables& t) {
    std::array<std::uint32_t, kLSymbols> lCount{};
    std::array<std::uint32_t, kMSymbols> mCount{};
    std::array<std::uint32_t, kDSymbols> dCount{};
    std::array<std::uint32_t, kLiteralSymbols> litCount{};
    for (const Coded& c : coded) {
        ++lCount[c.l];
        ++mCount[c.m];
        ++dCount[c.d];
    }
    for (std::uint8_t b : literals) ++litCount[b];
    std::uint16_t* f = h.freq.data();
    normaliseCounts(lCount.data(), kLSymbols, kLStates, f);
    normaliseCounts(mCount.data(), kMSymbols, kMStates, f + kLSymbols);
    normaliseCounts(dCount.data(), kDSymbols, kDStates, f + kLSymbols + kMSymbols);
    normaliseCounts(litCount.data(), kLiteralSymbols, kLiteralStates, f + kLSymbols + kMSymbols + kDSymbols);
    buildEncoderTable(h.lFreq(), kLSymbols, kLStates, t.l.data());
    buildEncoderTable(h.mFreq(), kMSymbols, kMStates, t.m.data());
    buildEncoderTable(h.dFreq(), kDSymbols, kDStates, t.d.data());
    buildEncoderTable(h.literalFreq(), kLiteralSymbols, kLiteralStates, t.literal.data());
}

// Literals are coded in the reverse of decoding order: last group of four first, and
// within a group literal 4g+3 (state q3) down to 4g (state q0).
void writeLiterals(LzfseHeader& h, const std::vector<std::uint8_t>& literals, const Tables& t,
                   std::vector<std::uint8_t>& out) {
    BitWriter w(out, literals.size() * 10 / 8 + 8);
    std::array<unsigned, 4> q{};
    for (std::size_t i = literals.size(); i != 0; i -= 4) {
        for (unsigned j = 4; j-- != 0;) encodeSymbol(q[j], kLiteralStates, t.literal[literals[i - 4 + j]], w);
    }
    h.literalBits = w.finish();
    h.literalPayloadBytes = static_cast<std::uint32_t>(w.bytes());
    for (unsigned j = 0; j < 4; ++j) h.literalStates[j] = static_cast<std::uint16_t>(q[j]);
}

// Triples are coded last to first, each as D, M, L (value extra bits, then the symbol), so
// the decoder reads L, M, D of the first triple first.
void writeLmd(LzfseHeader& h, const std::vector<std::pair<std::uint32_t, std::uint32_t>>& lm,
              const std::vector<std::uint32_t>& ds, const std::vector<Coded>& coded, const Tables& t,
              std::vector<std::uint8_t>& out) {
    BitWriter w(out, kLmdPaddingBytes + coded.size() * 7 + 8);
    w.write(0, 32);
    w.write(0, 32);
    unsigned l = 0, m = 0, d = 0;
    for (std::size_t i = coded.size(); i-- != 0;) {
        const Coded c = coded[i];
        w.write(ds[i] - kDCode.base[c.d], kDCode.extraBits[c.d]);
        encodeSymbol(d, kDStates, t.d[c.d], w);
        w.write(lm[i].second - kMCode.base[c.m], kMCode.extraBits[c.m]);
        encodeSymbol(m, kMStates, t.m[c.m], w);
        w.write(lm[i].first - kLCode.base[c.l], kLCode.extraBits[c.l]);
        encodeSymbol(l, kLStates, t.l[c.l], w);
    }
    h.lmdBits = w.finish();
    h.lmdPayloadBytes = static_cast<std::uint32_t>(w.bytes());
    h.lState = static_cast<std::uint16_t>(l);
    h.mState = static_cast<std::uint16_t>(m);
    h.dState = static_cast<std::uint16_t>(d);
}

}  // namespace

void BlockEncoder::reset() {
    triples_.clear();
    literals_.clear();
}

bool BlockEncoder::tryAddTriple(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M,
                                std::uint32_t D) {
    if (triples_.size() + 1 + kTripleMargin > kMaxMatches) return false;
    if (literals_.size() + L + kLiteralMargin > kMaxLiterals) return false;
    triples_.push_back({L, M, D});
    literals_.insert(literals_.end(), literals, literals + L);
    return true;
}

bool BlockEncoder::tryAddMatch(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M,
                               std::uint32_t D) {
    while (L > kMaxL) {
        if (!tryAddTriple(literals, kMaxL, 0, 1)) return false;
        literals += kMaxL;
        L -= kMaxL;
    }
    while (M > kMaxM) {
        if (!tryAddTriple(literals, L, kMaxM, D)) return false;
        literals += L;
        L = 0;
        M -= kMaxM;
    }
    return (L == 0 && M == 0) || tryAddTriple(literals, L, M, D);
}

void BlockEncoder::addMatch(const std::uint8_t* literals, std::uint32_t L, std::uint32_t M,
                            std::uint32_t D) {
    const std::size_t triples = triples_.size(), bytes = literals_.size();
    if (tryAddMatch(literals, L, M, D)) return;
    triples_.resize(triples);
    literals_.resize(bytes);
    flush();
    tryAddMatch(literals, L, M, D);
}

void BlockEncoder::flush() {
    if (triples_.empty() && literals_.empty()) return;
    LzfseHeader h;
    std::uint64_t raw = 0;
    std::vector<Coded> coded(triples_.size());
    std::vector<std::pair<std::uint32_t, std::uint32_t>> lm(triples_.size());
    std::vector<std::uint32_t> ds(triples_.size());
    std::uint32_t previous = 0;
    for (std::size_t i = 0; i < triples_.size(); ++i) {
        const Triple& tr = triples_[i];
        raw += tr.L + tr.M;
        // A distance equal to the previous triple's is sent as 0 ("same again").
        const std::uint32_t D = tr.D == previous ? 0 : tr.D;
        previous = tr.D;
        coded[i] = {static_cast<std::uint8_t>(lSymbol(tr.L)), static_cast<std::uint8_t>(mSymbol(tr.M)),
                    static_cast<std::uint8_t>(dSymbol(D))};
        lm[i] = {tr.L, tr.M};
        ds[i] = D;
    }
    while (literals_.size() % 4 != 0) literals_.push_back(0);
    h.rawBytes = static_cast<std::uint32_t>(raw);
    h.literals = static_cast<std::uint32_t>(literals_.size());
    h.matches = static_cast<std::uint32_t>(triples_.size());

    Tables t;
    buildTables(h, coded, literals_, t);
    std::vector<std::uint8_t> literalPayload, lmdPayload;
    writeLiterals(h, literals_, t, literalPayload);
    writeLmd(h, lm, ds, coded, t, lmdPayload);
    writeV2Header(h, out_);
    out_.insert(out_.end(), literalPayload.begin(), literalPayload.end());
    out_.insert(out_.end(), lmdPayload.begin(), lmdPayload.end());
    reset();
}

}  // namespace gaugepoint::lzfse::detail
