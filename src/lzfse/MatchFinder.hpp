#pragma once

// Front end of the LZFSE encoder: a greedy hash-chain-free match finder with one pending
// match of look-ahead, feeding BlockEncoder. Writes the bvx2 blocks of a whole input
// (without the end marker).

#include <cstdint>
#include <span>
#include <vector>

namespace gaugepoint::lzfse::detail {

void encodeLzfseBlocks(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out);

}  // namespace gaugepoint::lzfse::detail
