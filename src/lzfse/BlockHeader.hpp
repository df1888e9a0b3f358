#pragma once

// Headers of the entropy-coded block kinds: bvx2 (packed fields, compressed frequency
// tables) and bvx1 (every field stored plainly). Both carry the same information.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "lzfse/Format.hpp"

namespace gaugepoint::lzfse::detail {

struct LzfseHeader {
    std::uint32_t rawBytes = 0;  // bytes the block decodes to
    std::uint32_t literals = 0;
    std::uint32_t matches = 0;
    std::uint32_t literalPayloadBytes = 0;
    std::uint32_t lmdPayloadBytes = 0;
    int literalBits = 0;  // bit stream adjustments T - 8B, -8..0
    int lmdBits = 0;
    std::array<std::uint16_t, 4> literalStates{};
    std::uint16_t lState = 0;
    std::uint16_t mState = 0;
    std::uint16_t dState = 0;
    // Normalised frequencies in stream order: L, M, D, then literal bytes.
    std::array<std::uint16_t, kFrequencyCount> freq{};
    std::size_t headerBytes = 0;  // from the magic to the literal payload

    const std::uint16_t* lFreq() const { return freq.data(); }
    const std::uint16_t* mFreq() const { return freq.data() + kLSymbols; }
    const std::uint16_t* dFreq() const { return freq.data() + kLSymbols + kMSymbols; }
    const std::uint16_t* literalFreq() const { return freq.data() + kLSymbols + kMSymbols + kDSymbols; }
};

class BlockInput;

// Largest bvx2 header: the fixed fields and 360 frequency codes of at most 14 bits (bytes).
inline constexpr std::size_t kMaxV2HeaderBytes = kV2FixedHeaderBytes + (360 * 14 + 7) / 8;
// Largest literal or LMD payload of a block (bytes): what the bvx2 header's 20-bit fields can
// say, and more than 40000 literals (50000 bytes) or 10000 triples (67508 bytes) can fill.
inline constexpr std::uint32_t kMaxPayloadBytes = (std::uint32_t{1} << 20) - 1;

// Parse the header of the block starting at `offset` (its magic already identified), check
// every field, and make sure the whole block is held by `input` (so require() of it is
// cheap). Throw lzfse::Error.
LzfseHeader parseV2Header(BlockInput& input, std::size_t offset);
LzfseHeader parseV1Header(BlockInput& input, std::size_t offset);

// Bytes of the bvx2 header that carries h.freq (fixed fields and frequency tables).
std::size_t v2HeaderBytes(const LzfseHeader& h);

// Writes the complete bvx2 header for `h` (magic, packed words, frequency tables) at `out`:
// h.headerBytes (= v2HeaderBytes(h)) bytes.
void writeV2Header(const LzfseHeader& h, std::uint8_t* out);

}  // namespace gaugepoint::lzfse::detail
