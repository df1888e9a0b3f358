#pragma once

// Word-at-a-time copies for the decoders' hot loops. They may write up to 32 bytes past
// dst + n and read up to 32 bytes past src + n; callers guarantee those bytes are allocated
// (OutputBuffer::kSlack, literal buffer slack, or input bytes known to remain).

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace gaugepoint::lzfse::detail {

inline void copy16(std::uint8_t* dst, const std::uint8_t* src) noexcept {
    std::memcpy(dst, src, 16);
}

// Non-overlapping copy of n bytes in 16-byte steps (at least one step).
inline void wildCopy(std::uint8_t* dst, const std::uint8_t* src, std::size_t n) noexcept {
    std::uint8_t* const end = dst + n;
    do {
        copy16(dst, src);
        dst += 16;
        src += 16;
    } while (dst < end);
}

// Appends n bytes that start `distance` bytes before dst (1 <= distance). Overlap is the
// point: distance 1 repeats the last byte n times.
inline void copyMatch(std::uint8_t* dst, std::size_t distance, std::size_t n) noexcept {
    const std::uint8_t* src = dst - distance;
    if (distance >= 32) {
        // Most matches are short: one unconditional 32-byte step covers them without a
        // loop exit to mispredict.
        std::memcpy(dst, src, 32);
        if (n > 32) wildCopy(dst + 32, src + 32, n - 32);
        return;
    }
    if (distance >= 16) {
        wildCopy(dst, src, n);
        return;
    }
    if (distance >= 8) {
        std::uint8_t* const end = dst + n;
        do {
            std::memcpy(dst, src, 8);
            dst += 8;
            src += 8;
        } while (dst < end);
        return;
    }
    for (std::size_t i = 0; i < n; ++i) dst[i] = src[i];
}

}  // namespace gaugepoint::lzfse::detail
