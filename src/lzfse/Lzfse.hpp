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

// Compresses `input` into one complete raw LZFSE stream, choosing raw, LZVN or LZFSE blocks
// by input size the same way the platform's encoder does; the result decodes with any LZFSE
// decoder.
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

// Where a streaming call reads: read() stores up to `n` bytes at `buffer` and returns how
// many, 0 only once the input has ended. It may throw; the exception leaves the codec as is.
class Source {
public:
    virtual ~Source() = default;
    virtual std::size_t read(std::uint8_t* buffer, std::size_t n) = 0;
};

// Where a streaming call writes, in order, in pieces of up to a few MiB. May throw.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void write(const std::uint8_t* bytes, std::size_t n) = 0;
};

// Compresses everything `input` gives, writing the stream to `output` as it goes: the same
// bytes compress() makes of the whole input, with about 10 MiB held at any time. Inputs of
// any size (compress() takes them all too).
void compress(Source& input, Sink& output);

// Decodes one stream read from `input` (nothing past its end marker is read), writing the
// bytes to `output` as they are decoded; at most about 10 MiB is held, whatever the stream
// announces. Same checks and errors as decompress(); on error some output may have been
// written already, so a caller that must not leave a part writes to a temporary place.
void decompress(Source& input, Sink& output, std::uint64_t maxOutputBytes);

// Conveniences for text payloads; same contracts as above.
std::string compressString(std::string_view input);
std::string decompressString(std::string_view input,
                             std::size_t maxOutputBytes = kDefaultMaxOutputBytes);

}  // namespace gaugepoint::lzfse
