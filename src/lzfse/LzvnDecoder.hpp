#pragma once

// Decodes one bvxn block: a byte-oriented instruction stream of literals and matches.

#include <cstddef>
#include <cstdint>
#include <span>

#include "lzfse/OutputBuffer.hpp"

namespace gaugepoint::lzfse::detail {

class BlockInput;

// Decodes the bvxn block at `offset` (magic already identified), appending to `out`.
// Returns the offset just past the block. Throws lzfse::Error.
std::size_t decodeLzvnBlock(BlockInput& input, std::size_t offset, OutputBuffer& out);

}  // namespace gaugepoint::lzfse::detail
