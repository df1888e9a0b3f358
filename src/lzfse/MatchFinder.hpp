#pragma once

// Front end of the LZFSE encoder: a greedy hash-chain-free match finder with one pending
// match of look-ahead, feeding BlockEncoder. Writes the bvx2 blocks of a whole input
// (without the end marker).

#include <cstdint>
#include <span>
#include <vector>

#include "lzfse/Lzfse.hpp"

namespace gaugepoint::lzfse::detail {

void encodeLzfseBlocks(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out);

// The same blocks for the input that `head` (the bytes read so far) and then `source` give,
// written to `sink` as they are made, holding about 8 MiB of input.
void encodeLzfseBlocks(std::vector<std::uint8_t> head, Source& source, Sink& sink);

}  // namespace gaugepoint::lzfse::detail
