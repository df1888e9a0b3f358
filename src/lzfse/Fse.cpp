#include "lzfse/Fse.hpp"

#include <algorithm>
#include <bit>

namespace gaugepoint::lzfse::detail {

namespace {

unsigned log2Floor(unsigned v) { return static_cast<unsigned>(std::bit_width(v)) - 1; }

bool sumsTo(const std::uint16_t* freq, unsigned symbols, unsigned states) {
    unsigned sum = 0;
    for (unsigned s = 0; s < symbols; ++s) sum += freq[s];
    return sum == states;
}

// Calls fn(first, count, symbol, bits, base, step) for runs of states: states first ..
// first+count-1 read `bits` bits and their bases are base, base+step, ... For state c[s]+j,
// y = f+j is shifted by n bits into [N, 2N) and base = y*2^n - N; with
// k = log2(N) - floor(log2(f)) and j0 = 2N/2^k - f that is n = k, base = (f+j)*2^k - N below
// j0, and n = k-1, base = (j-j0)*2^(k-1) from j0 on: two runs per symbol.
template <typename Fn>
void forEachRun(const std::uint16_t* freq, unsigned symbols, unsigned states, Fn fn) {
    const unsigned logN = log2Floor(states);
    unsigned state = 0;
    for (unsigned s = 0; s < symbols; ++s) {
        const unsigned f = freq[s];
        if (f == 0) continue;
        const unsigned k = logN - log2Floor(f);
        const unsigned j0 = ((2 * states) >> k) - f;
        fn(state, j0, s, k, (f << k) - states, 1u << k);
        if (f > j0) fn(state + j0, f - j0, s, k - 1, 0u, 1u << (k - 1));
        state += f;
    }
}

}  // namespace

void normaliseCounts(const std::uint32_t* counts, unsigned symbols, unsigned states,
                     std::uint16_t* freq) {
    std::uint32_t total = 0;
    for (unsigned s = 0; s < symbols; ++s) total += counts[s];
    const std::uint32_t step = total == 0 ? 0 : (std::uint32_t{1} << 31) / total;
    const unsigned shift = 30 - log2Floor(states);

    int remaining = static_cast<int>(states);
    unsigned largest = 0;
    unsigned largestSymbol = 0;
    for (unsigned s = 0; s < symbols; ++s) {
        std::uint32_t f = (((counts[s] * step) >> shift) + 1) >> 1;
        if (f == 0 && counts[s] != 0) f = 1;
        freq[s] = static_cast<std::uint16_t>(f);
        remaining -= static_cast<int>(f);
        if (f > largest) {
            largest = f;
            largestSymbol = s;
        }
    }
    if (-remaining < static_cast<int>(largest >> 2)) {
        freq[largestSymbol] = static_cast<std::uint16_t>(freq[largestSymbol] + remaining);
        return;
    }
    // Too many states handed out to round off the largest alone: shave every symbol, the
    // big ones first (sh = 3 takes an eighth of each), until the excess is gone.
    unsigned over = static_cast<unsigned>(-remaining);
    for (int sh = 3; sh >= 0 && over != 0; --sh) {
        for (unsigned s = 0; s < symbols && over != 0; ++s) {
            if (freq[s] <= 1) continue;
            const unsigned take = std::min<unsigned>((freq[s] - 1u) >> sh, over);
            freq[s] = static_cast<std::uint16_t>(freq[s] - take);
            over -= take;
        }
    }
}

bool buildLiteralTable(const std::uint16_t* freq, LiteralTable& t) {
    if (!sumsTo(freq, kLiteralSymbols, kLiteralStates)) return false;
    forEachRun(freq, kLiteralSymbols, kLiteralStates,
               [&](unsigned first, unsigned count, unsigned s, unsigned n, unsigned base, unsigned step) {
                   const LiteralTable::Read r{n, (1u << n) - 1};
                   for (unsigned i = first; i < first + count; ++i, base += step) {
                       t.read[i] = r;
                       t.out[i] = {base, s};
                   }
               });
    return true;
}

bool buildValueTable(const std::uint16_t* freq, const ValueCode& code, unsigned states, LmdTables& t,
                     unsigned firstState) {
    if (!sumsTo(freq, code.symbols, states)) return false;
    forEachRun(freq, code.symbols, states,
               [&](unsigned first, unsigned count, unsigned s, unsigned n, unsigned base, unsigned step) {
                   const unsigned extra = code.extraBits[s], total = n + extra;
                   const LmdTables::Read r{total, (1u << total) - 1};
                   const LmdTables::Value v{code.base[s], (1u << extra) - 1};
                   base += firstState;
                   for (unsigned i = firstState + first; i < firstState + first + count; ++i, base += step) {
                       t.read[i] = r;
                       t.value[i] = v;
                       t.next[i] = {base, extra};
                   }
               });
    return true;
}

void buildEncoderTable(const std::uint16_t* freq, unsigned symbols, unsigned states,
                       EncoderEntry* table) {
    const unsigned logN = log2Floor(states);
    int cumulative = 0;
    for (unsigned s = 0; s < symbols; ++s) {
        const unsigned f = freq[s];
        if (f == 0) {
            table[s] = {0, 0};
            continue;
        }
        const unsigned k = logN - log2Floor(f);
        table[s] = {(k << 16) - ((f << k) - states), cumulative - static_cast<int>(f)};
        cumulative += static_cast<int>(f);
    }
}

}  // namespace gaugepoint::lzfse::detail
