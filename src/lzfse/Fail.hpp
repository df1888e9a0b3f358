#pragma once

// Throwing helpers shared by the decoders, so the hot loops stay free of string building.

#include <cstddef>
#include <string>

#include "lzfse/Error.hpp"

namespace gaugepoint::lzfse::detail {

[[noreturn]] void fail(Error::Kind kind, const std::string& message);

// "LZFSE stream truncated: <what> needs <needed> bytes at offset <offset>, <remaining> remain"
[[noreturn]] void failTruncated(const char* what, std::size_t offset, std::size_t needed,
                                std::size_t remaining);

// Throws the truncation error unless `needed` bytes remain after `offset` of `total`.
inline void requireBytes(const char* what, std::size_t offset, std::size_t needed,
                         std::size_t total) {
    if (needed > total - offset) failTruncated(what, offset, needed, total - offset);
}

std::string at(std::size_t offset);  // " at offset N"

}  // namespace gaugepoint::lzfse::detail
