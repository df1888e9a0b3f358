#pragma once

// Raw LZFSE streams: the bare block sequence ending in "bvx$", with no container around it.
// This is what the companion app stores in snapshot blobs and cloud payload fields.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lzfse/Error.hpp"

namespace gaugepoint::lzfse {

// Largest output decompress() accepts unless the caller says otherwise (bytes). A widget
// payload is a few hundred KiB at most; a hostile stream must not make us allocate more.
inline constexpr std::size_t kDefaultMaxOutputBytes = std::size_t{64} << 20;

// Largest input compress() takes (bytes); match positions are kept in 32 bits.
inline constexpr std::size_t kMaxCompressInputBytes = (std::size_t{1} << 31) - 1;

// Compresses `input` into one complete raw LZFSE stream, choosing raw, LZVN or LZFSE blocks
// by input size the same way the platform's encoder does; the result decodes with any LZFSE
// decoder. Throws std::length_error above kMaxCompressInputBytes.
std::vector<std::uint8_t> compress(std::span<const std::uint8_t> input);

// Decodes one complete raw LZFSE stream (all block kinds, the end marker is required; bytes
// after it are ignored). Throws lzfse::Error on any malformed, truncated or hostile input,
// and with Kind::OutputLimit as soon as the output would exceed `maxOutputBytes`.
std::vector<std::uint8_t> decompress(std::span<const std::uint8_t> input,
                                     std::size_t maxOutputBytes = kDefaultMaxOutputBytes);

// As decompress(), but writes into `output` (replacing its contents, reusing its capacity),
// for callers that decode many streams. On error `output` is left empty.
void decompressInto(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& output,
                    std::size_t maxOutputBytes = kDefaultMaxOutputBytes);

// Conveniences for text payloads; same contracts as above.
std::string compressString(std::string_view input);
std::string decompressString(std::string_view input,
                             std::size_t maxOutputBytes = kDefaultMaxOutputBytes);

}  // namespace gaugepoint::lzfse
