#pragma once

// Finite-state entropy (tANS) coding as LZFSE uses it: symbol s owns the contiguous state
// run c[s] .. c[s]+f[s]-1 (no spreading), the encoder runs backwards from state 0 and the
// decoder retraces it, ending in state 0.

#include <cstddef>
#include <cstdint>

#include "lzfse/BitReader.hpp"
#include "lzfse/BitWriter.hpp"
#include "lzfse/Format.hpp"

namespace gaugepoint::lzfse::detail {

// Scales `counts` to frequencies that sum to exactly `states`, every symbol that occurred
// keeping at least 1; an empty histogram gives every state to symbol 0. The rounding is
// the platform encoder's, so our tables (and streams) come out identical to its.
void normaliseCounts(const std::uint32_t* counts, unsigned symbols, unsigned states,
                     std::uint16_t* freq);

// Decoding tables are split into arrays of 8-byte entries indexed by the state (a scaled
// address, no multiply), with 32-bit fields so that the decode loops can use them directly
// as memory operands (sub, and, add) instead of loading them first.

// The literal table: read `bits` bits (under `mask`); the next state is base plus those bits.
struct LiteralTable {
    struct Read {
        std::uint32_t bits;
        std::uint32_t mask;  // (1 << bits) - 1
    };
    struct Out {
        std::uint32_t base;
        std::uint32_t symbol;
    };
    Read read[kLiteralStates];
    Out out[kLiteralStates];
};

// The L, M and D tables side by side (L states first, then M, then D), so that one register
// addresses all of them; states index the whole arrays. `totalBits` = state bits + extra
// bits, read in one go; the high part moves the state, the low `extraBits` are added to the
// value base.
struct LmdTables {
    static constexpr unsigned kMFirst = kLStates;
    static constexpr unsigned kDFirst = kLStates + kMStates;
    static constexpr unsigned kStates = kLStates + kMStates + kDStates;
    struct Read {
        std::uint32_t totalBits;
        std::uint32_t totalMask;  // (1 << totalBits) - 1
    };
    struct Value {
        std::uint32_t base;
        std::uint32_t extraMask;  // (1 << extraBits) - 1
    };
    struct Next {
        std::uint32_t stateBase;
        std::uint32_t extraBits;
    };
    Read read[kStates];
    Value value[kStates];
    Next next[kStates];
};

// Build decoding tables of `states` entries. Return false unless the frequencies sum to
// exactly `states` (a smaller sum would leave states without a symbol). A value table starts
// at state `firstState` of `t`; its next-state bases include that offset.
bool buildLiteralTable(const std::uint16_t* freq, LiteralTable& t);
bool buildValueTable(const std::uint16_t* freq, const ValueCode& code, unsigned states, LmdTables& t,
                     unsigned firstState);

inline std::uint8_t decodeLiteral(unsigned& state, const LiteralTable& t, BitReader& in) noexcept {
    const LiteralTable::Read r = t.read[state];
    const LiteralTable::Out o = t.out[state];
    state = o.base + in.read(r.bits, r.mask);
    return static_cast<std::uint8_t>(o.symbol);
}

inline std::uint32_t decodeValue(unsigned& state, const LmdTables& t, BitReader& in) noexcept {
    const LmdTables::Read r = t.read[state];
    const LmdTables::Value v = t.value[state];
    const LmdTables::Next n = t.next[state];
    const std::uint32_t bits = in.read(r.totalBits, r.totalMask);
    state = n.stateBase + (bits >> n.extraBits);
    return v.base + (bits & v.extraMask);
}

// Encoding entry of one symbol. With k = log2(N) - floor(log2(f)) and threshold
// t = f 2^k - N, a state below t sheds k-1 bits, else k; `nbBits` = k 2^16 - t, so that
// (state + nbBits) >> 16 is that count without a compare.
struct EncoderEntry {
    std::uint32_t nbBits;
    std::int32_t delta;  // c[s] - f[s]
};

void buildEncoderTable(const std::uint16_t* freq, unsigned symbols, unsigned states,
                       EncoderEntry* table);

inline void encodeSymbol(unsigned& state, unsigned states, const EncoderEntry& e,
                         BitWriter& out) noexcept {
    const unsigned n = (state + e.nbBits) >> 16;
    out.write(state & ((1u << n) - 1), n);
    state = static_cast<unsigned>(e.delta + static_cast<int>((states + state) >> n));
}

}  // namespace gaugepoint::lzfse::detail
