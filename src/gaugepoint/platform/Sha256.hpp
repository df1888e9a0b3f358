#pragma once

// SHA-256 digests (FIPS 180-4), and bytes as lowercase hexadecimal.

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace gaugepoint {

using Sha256Digest = std::array<std::uint8_t, 32>;

// The SHA-256 digest of `bytes`. Pure; thread-safe.
Sha256Digest sha256(std::span<const std::uint8_t> bytes);
Sha256Digest sha256(std::string_view bytes);

// Every byte as two lowercase hexadecimal digits ("%02x"), in order.
std::string lowercaseHex(std::span<const std::uint8_t> bytes);

// lowercaseHex(sha256(bytes)): 64 characters.
std::string sha256Hex(std::span<const std::uint8_t> bytes);
std::string sha256Hex(std::string_view bytes);

}  // namespace gaugepoint
