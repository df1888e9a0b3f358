#pragma once

// LZVN encoder for small inputs (8..4095 bytes), where an entropy-coded block's tables
// would cost more than they save.

#include <cstdint>
#include <span>
#include <vector>

namespace gaugepoint::lzfse::detail {

// Returns the LZVN instruction stream for `input`, end instruction included.
std::vector<std::uint8_t> encodeLzvnPayload(std::span<const std::uint8_t> input);

}  // namespace gaugepoint::lzfse::detail
