#pragma once

// Reads an LZFSE payload bit stream backwards: the encoder appended fields at increasing bit
// numbers, the decoder takes them off the top like a stack.
//
// The payload's bits are numbered 0..8B-1 (bit i is bit i%8 of byte i/8) and only bits below
// T = 8B + adjustment carry data. The reader keeps an 8-byte window of the payload, bytes
// [pos, pos + 8), whose low `bits` bits are the unread ones (the bits above them were read
// already). A refill moves the window down by whole bytes and reloads it with one load.
// The window never reaches above the payload; below its start it reads zeros (pos may go
// negative), so a stream read below bit 0 shows as cursor() < 0, never as a load outside
// the payload.

#include <cstddef>
#include <cstdint>

#include "lzfse/ByteOrder.hpp"

namespace gaugepoint::lzfse::detail {

class BitReader {
public:
    // After refill() at least this many bits can be read.
    static constexpr unsigned kRefillBits = 57;

    // `adjustment` is in -8..0; returns false when the bits above T are not zero.
    bool init(const std::uint8_t* payload, std::size_t bytes, int adjustment) noexcept {
        base_ = payload;
        pos_ = static_cast<std::ptrdiff_t>(bytes) - 8;
        bits_ = static_cast<unsigned>(64 + adjustment);
        load();
        return bits_ == 64 || (accum_ >> bits_) == 0;
    }

    // Whole refills that are certain to keep the window inside the payload (a refill moves
    // it down by at most 8 bytes); refillUnchecked() may be used that many times.
    std::size_t safeRefills() const noexcept { return pos_ >= 8 ? static_cast<std::size_t>(pos_) / 8 : 0; }

    // Moves the window down so that 57..64 bits are unread.
    void refill() noexcept {
        advance();
        load();
    }

    void refillUnchecked() noexcept {
        advance();
        accum_ = load64(base_ + pos_);
    }

    // Takes the next `n` bits (0 <= n <= bits available since the last refill); `mask` is
    // (1 << n) - 1, precomputed by the caller's tables.
    std::uint32_t read(unsigned n, std::uint32_t mask) noexcept {
        bits_ -= n;
        // bits_ is 64 only when n is 0 and the mask clears everything; & 63 keeps that shift
        // defined and costs nothing (x86 masks shift counts the same way).
        return static_cast<std::uint32_t>(accum_ >> (bits_ & 63)) & mask;
    }

    std::uint32_t read(unsigned n) noexcept { return read(n, (std::uint32_t{1} << n) - 1); }

    // Bits left above bit 0; negative once the stream was read below its start.
    std::int64_t cursor() const noexcept { return 8 * static_cast<std::int64_t>(pos_) + bits_; }

private:
    void advance() noexcept {
        const unsigned bytes = (64 - bits_) >> 3;  // 0..8
        pos_ -= bytes;
        bits_ += 8 * bytes;
    }

    void load() noexcept {
        if (pos_ >= 0) [[likely]] {
            accum_ = load64(base_ + pos_);
            return;
        }
        // The window reaches below the payload's first byte: those bytes read as zero.
        accum_ = 0;
        for (std::ptrdiff_t i = pos_ + 7; i >= 0; --i) accum_ = (accum_ << 8) | base_[i];
        if (pos_ > -8) accum_ <<= 8 * static_cast<unsigned>(-pos_);
    }

    const std::uint8_t* base_ = nullptr;
    std::ptrdiff_t pos_ = 0;    // first byte of the window; may be negative
    std::uint64_t accum_ = 0;   // the window, little-endian
    unsigned bits_ = 0;         // unread bits at the bottom of the window, 0..64
};

}  // namespace gaugepoint::lzfse::detail
