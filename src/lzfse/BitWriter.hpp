#pragma once

// Appends fields to an LZFSE payload bit stream, least significant bit first at increasing
// bit numbers; BitReader takes them back in reverse order.

#include <cstddef>
#include <cstdint>

#include "lzfse/ByteOrder.hpp"

namespace gaugepoint::lzfse::detail {

class BitWriter {
public:
    // Most bits write() may add between two flush() calls.
    static constexpr unsigned kFlushBits = 56;

    // Writes the payload from `out` on, which must have room for it plus 8 bytes (flush()
    // always stores a whole 8-byte word).
    explicit BitWriter(std::uint8_t* out) noexcept : start_(out), next_(out) {}

    // Appends the low `n` bits of `value` (higher bits of value must be zero). At most
    // kFlushBits bits in all between flushes.
    void write(std::uint64_t value, unsigned n) noexcept {
        accum_ |= value << bits_;
        bits_ += n;
    }

    // Moves the complete bytes out: one store, no branch. Leaves fewer than 8 bits pending.
    void flush() noexcept {
        storeLe<std::uint64_t>(next_, accum_);
        const unsigned whole = bits_ & ~7u;
        next_ += whole / 8;
        accum_ >>= whole;
        bits_ -= whole;
    }

    // Pads the last byte with zero bits. Returns the adjustment T - 8B, in -7..0, that the
    // header records.
    int finish() noexcept {
        flush();  // the partial byte, if any, is stored too
        const int adjustment = bits_ == 0 ? 0 : static_cast<int>(bits_) - 8;
        if (bits_ != 0) ++next_;
        accum_ = 0;
        bits_ = 0;
        return adjustment;
    }

    std::size_t bytes() const noexcept { return static_cast<std::size_t>(next_ - start_); }

private:
    std::uint8_t* start_;
    std::uint8_t* next_;
    std::uint64_t accum_ = 0;  // the low bits_ bits are pending
    unsigned bits_ = 0;
};

}  // namespace gaugepoint::lzfse::detail
