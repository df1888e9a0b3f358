#pragma once

// Standard base64 (RFC 4648 section 4: "A-Z a-z 0-9 + /", padded with "=").

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace gaugepoint {

// The padded base64 text of `bytes`.
std::string base64Encode(std::span<const std::uint8_t> bytes);

// The bytes of a padded base64 text; none for anything else: a character outside the alphabet
// (white space included), a length that is not a multiple of four, misplaced padding, or unused
// bits that are not zero. So every byte sequence has exactly one text that decodes to it.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace gaugepoint
