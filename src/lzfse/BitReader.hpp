#pragma once

// Reads an LZFSE payload bit stream backwards: the encoder appended fields at increasing bit
// numbers, the decoder takes them off the top like a stack.
//
// The payload's bits are numbered 0..8B-1 (bit i is bit i%8 of byte i/8) and only bits below
// T = 8B + adjustment carry data. The reader never touches a byte outside the payload: once
// it runs past bit 0 it feeds zeros and remembers by how much, so a stream read below its
// start is reported by cursor() going negative rather than by an out-of-bounds load.

#include <cstddef>
#include <cstdint>

#include "lzfse/ByteOrder.hpp"

namespace gaugepoint::lzfse::detail {

class BitReader {
public:
    // After refill() at least this many bits can be read.
    static constexpr unsigned kRefillBits = 56;

    // `adjustment` is in -8..0; returns false when the bits above T are not zero.
    bool init(const std::uint8_t* payload, std::size_t bytes, int adjustment) noexcept {
        base_ = payload;
        pos_ = bytes;
        refill();
        const unsigned unused = static_cast<unsigned>(-adjustment);
        if (unused != 0 && ((accum_ >> (bits_ - unused)) & ((1u << unused) - 1)) != 0) return false;
        bits_ -= unused;
        return true;
    }

    // Tops the accumulator up to 56..63 bits. In the payload's body this is one 8-byte load
    // ending at the first byte not yet taken and no data-dependent branch: as many whole
    // bytes as fit are shifted in below the unread bits.
    void refill() noexcept {
        if (pos_ >= 8) [[likely]] {
            const std::uint64_t word = load64(base_ + pos_ - 8);
            const unsigned bytes = (63 - bits_) >> 3;  // 0..7
            pos_ -= bytes;
            // (word >> 1) >> (63 - 8 bytes) is word's top `bytes` bytes, also for bytes = 0.
            accum_ = (accum_ << (8 * bytes)) | ((word >> 1) >> (63 - 8 * bytes));
            bits_ |= 56;  // = bits_ + 8 * bytes
            return;
        }
        refillSlow();
    }

    // Takes the next `n` bits (0 <= n <= bits available since the last refill); `mask` is
    // (1 << n) - 1, precomputed by the caller's tables.
    std::uint32_t read(unsigned n, std::uint32_t mask) noexcept {
        bits_ -= n;
        return static_cast<std::uint32_t>(accum_ >> bits_) & mask;
    }

    std::uint32_t read(unsigned n) noexcept { return read(n, (std::uint32_t{1} << n) - 1); }

    // Bits left above bit 0; negative once the stream was read below its start.
    std::int64_t cursor() const noexcept {
        return static_cast<std::int64_t>(pos_ * 8 + bits_) - static_cast<std::int64_t>(underflow_);
    }

private:
    // The last bytes of the payload (its first ones in memory), then zeros past its start.
    void refillSlow() noexcept {
        for (unsigned bytes = (63 - bits_) >> 3; bytes != 0; --bytes) {
            std::uint8_t b = 0;
            if (pos_ != 0) {
                b = base_[--pos_];
            } else {
                underflow_ += 8;
            }
            accum_ = (accum_ << 8) | b;
            bits_ += 8;
        }
    }

    const std::uint8_t* base_ = nullptr;
    std::size_t pos_ = 0;        // bytes [0, pos_) of the payload are not loaded yet
    std::uint64_t accum_ = 0;    // the low bits_ bits are loaded and unread
    unsigned bits_ = 0;
    std::size_t underflow_ = 0;  // zero bits fed from below the payload's start
};

}  // namespace gaugepoint::lzfse::detail
