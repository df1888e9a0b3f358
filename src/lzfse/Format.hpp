#pragma once

// Constants of the raw LZFSE stream layout shared by the decoder and the encoder.

#include <array>
#include <cstddef>
#include <cstdint>

namespace gaugepoint::lzfse::detail {

// Block magics as little-endian u32 ("bvx$", "bvx-", "bvx1", "bvx2", "bvxn").
inline constexpr std::uint32_t kMagicEnd = 0x24787662;
inline constexpr std::uint32_t kMagicRaw = 0x2D787662;
inline constexpr std::uint32_t kMagicV1 = 0x31787662;
inline constexpr std::uint32_t kMagicV2 = 0x32787662;
inline constexpr std::uint32_t kMagicLzvn = 0x6E787662;

inline constexpr std::size_t kRawHeaderBytes = 8;
inline constexpr std::size_t kLzvnHeaderBytes = 12;
inline constexpr std::size_t kV1HeaderBytes = 772;
inline constexpr std::size_t kV2FixedHeaderBytes = 32;

// Per-block limits of an LZFSE (bvx1/bvx2) block.
inline constexpr std::uint32_t kMaxLiterals = 40000;
inline constexpr std::uint32_t kMaxMatches = 10000;
inline constexpr std::uint32_t kMaxL = 315;
inline constexpr std::uint32_t kMaxM = 2359;
inline constexpr std::uint32_t kMaxD = 262139;

// FSE state counts (always powers of two) and alphabet sizes.
inline constexpr unsigned kLiteralStates = 1024;
inline constexpr unsigned kLStates = 64;
inline constexpr unsigned kMStates = 64;
inline constexpr unsigned kDStates = 256;
inline constexpr unsigned kLiteralSymbols = 256;
inline constexpr unsigned kLSymbols = 20;
inline constexpr unsigned kMSymbols = 20;
inline constexpr unsigned kDSymbols = 64;
inline constexpr unsigned kFrequencyCount = kLSymbols + kMSymbols + kDSymbols + kLiteralSymbols;

// The LMD payload starts with this many zero bytes that are never read back.
inline constexpr std::size_t kLmdPaddingBytes = 8;

// Value coding of L, M and D: value = base[symbol] + (extra bits read raw).
struct ValueCode {
    std::array<std::uint8_t, 64> extraBits;
    std::array<std::uint32_t, 64> base;
    unsigned symbols;
};

inline constexpr ValueCode kLCode = {
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 3, 5, 8},
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 20, 28, 60},
    kLSymbols,
};

inline constexpr ValueCode kMCode = {
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 5, 8, 11},
    {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 24, 56, 312},
    kMSymbols,
};

// D: extra bits of symbol s are s / 4 and each base follows the previous one's range.
constexpr ValueCode makeDCode() {
    ValueCode c{};
    c.symbols = kDSymbols;
    std::uint32_t base = 0;
    for (unsigned s = 0; s < kDSymbols; ++s) {
        c.extraBits[s] = static_cast<std::uint8_t>(s / 4);
        c.base[s] = base;
        base += std::uint32_t{1} << (s / 4);
    }
    return c;
}
inline constexpr ValueCode kDCode = makeDCode();

static_assert(kLCode.base[19] + 255 == kMaxL);
static_assert(kMCode.base[19] + 2047 == kMaxM);
static_assert(kDCode.base[63] + 32767 == kMaxD);

}  // namespace gaugepoint::lzfse::detail
