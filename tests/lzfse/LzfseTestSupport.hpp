#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lzfse_test {

using Bytes = std::vector<std::uint8_t>;

// Contents of tests/data/lzfse/<file>.
Bytes readVector(const std::string& file);

// Deterministic generators for round-trip inputs.
Bytes randomBytes(std::size_t n, std::uint32_t seed);
Bytes wordText(std::size_t n, std::uint32_t seed);  // prose-like words and punctuation
Bytes run(std::size_t n, std::uint8_t value);

void put32(Bytes& b, std::uint32_t v);
std::uint64_t get64(const Bytes& b, std::size_t at);
void set64(Bytes& b, std::size_t at, std::uint64_t v);

}  // namespace lzfse_test
