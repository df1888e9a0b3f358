#pragma once

// The decoder's view of its input: stream bytes addressed by their offset from the start of
// the stream, either all in memory or read from a Source as the blocks ask for them. Only
// what the current block needs is held in the second case, so memory stays bounded by the
// largest block part the decoder asks for at once (about 2 MiB for an LZFSE block, the piece
// size below for raw and LZVN blocks), never by the stream.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "lzfse/Lzfse.hpp"

namespace gaugepoint::lzfse::detail {

class BlockInput {
public:
    // The whole stream in memory (not copied; it must outlive this object).
    explicit BlockInput(std::span<const std::uint8_t> stream) noexcept
        : data_(stream.data()), start_(0), end_(stream.size()), eof_(true) {}

    // The stream as `source` gives it.
    explicit BlockInput(Source& source) : source_(&source), eof_(false) {}

    // The bytes [offset, offset + n) of the stream. Throws Kind::Truncated naming `what` when
    // the stream ends first. The pointer stays valid until the next call that asks for bytes
    // past what is held. Precondition: offset >= the last release().
    const std::uint8_t* require(const char* what, std::size_t offset, std::size_t n) {
        if (offset >= start_ && offset <= end_ && n <= end_ - offset) return data_ + (offset - start_);
        return fetch(what, offset, n);
    }

    // Whether the stream has any byte at `offset` (reads to find out).
    bool has(std::size_t offset);

    // Bytes before `offset` will never be asked for again.
    void release(std::size_t offset) noexcept {
        if (source_ != nullptr && offset > released_) released_ = offset;
    }

    // How many bytes of a part of `n` bytes to ask for at once: all of it in memory, pieces
    // of at most kPieceBytes when streaming.
    std::size_t piece(std::size_t n) const noexcept {
        return source_ == nullptr || n < kPieceBytes ? n : kPieceBytes;
    }

    // How many bytes from `offset` may be read through the pointer require() gave (at least
    // what was required; a copy may read ahead that far).
    std::size_t readable(std::size_t offset) const noexcept { return end_ - offset; }

    // Stream offset just past the bytes held (the stream's size once it has ended).
    std::size_t heldEnd() const noexcept { return end_; }

    static constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

private:
    const std::uint8_t* fetch(const char* what, std::size_t offset, std::size_t n);
    bool fill(std::size_t offset, std::size_t n);

    Source* source_ = nullptr;
    std::vector<std::uint8_t> buffer_;
    const std::uint8_t* data_ = nullptr;  // the byte at stream offset start_
    std::size_t start_ = 0;               // stream offsets of the bytes held: [start_, end_)
    std::size_t end_ = 0;
    std::size_t released_ = 0;
    bool eof_;
};

}  // namespace gaugepoint::lzfse::detail
