#pragma once

// UTF-8 well-formedness and repair, as text decoding does it.

#include <cstddef>
#include <string>
#include <string_view>

namespace gaugepoint::utf8 {

// True when bytes are well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValid(std::string_view bytes) noexcept;

// A copy with every maximal ill-formed subpart replaced by one U+FFFD (the Unicode and WHATWG
// rule): "\xE2\x82(" gives "\uFFFD(", "\xED\xA0\x80" gives three U+FFFD.
std::string repaired(std::string_view bytes);

// Length of the well-formed sequence at the start of bytes (non-empty), or 0 when it is
// ill-formed; then `subpart` receives the length of the maximal ill-formed subpart (at least 1).
std::size_t sequenceLength(std::string_view bytes, std::size_t& subpart) noexcept;

}  // namespace gaugepoint::utf8
