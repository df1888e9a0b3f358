#pragma once

// Word-at-a-time copies for the decoders' hot loops. They write whole 16-byte words, so they
// may write up to kCopyOvershoot bytes past dst + n and read up to 16 bytes past src + n;
// callers guarantee those bytes are allocated (OutputBuffer::kSlack, literal buffer slack,
// or input bytes known to remain). Bytes written past dst + n are garbage that the next
// copy overwrites.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace gaugepoint::lzfse::detail {

// Most bytes any of these copies writes past the end of what it was asked to write.
inline constexpr std::size_t kCopyOvershoot = 31;

inline void copy16(std::uint8_t* dst, const std::uint8_t* src) noexcept {
    std::memcpy(dst, src, 16);
}

// Copies n bytes in 16-byte steps (at least one step). Each step reads before it writes, so
// src may lie before dst as long as they are at least 16 bytes apart.
inline void wildCopy(std::uint8_t* dst, const std::uint8_t* src, std::size_t n) noexcept {
    std::uint8_t* const end = dst + n;
    do {
        copy16(dst, src);
        dst += 16;
        src += 16;
    } while (dst < end);
}

namespace copy_detail {

// kPatternIndex[d][i] = i % d: byte i of a 16-byte run of period d.
constexpr std::array<std::array<std::uint8_t, 16>, 8> makePatternIndex() {
    std::array<std::array<std::uint8_t, 16>, 8> t{};
    for (unsigned d = 1; d < 8; ++d)
        for (unsigned i = 0; i < 16; ++i) t[d][i] = static_cast<std::uint8_t>(i % d);
    return t;
}
inline constexpr auto kPatternIndex = makePatternIndex();

}  // namespace copy_detail

// A match closer than 16 bytes repeats a period of `distance` bytes. Take 16 bytes holding
// at least one whole period, then store that word every (multiple of the period up to 16)
// bytes: no load depends on a store just made, so there is no store-forwarding stall per
// step. From distance 8 on, the 16 bytes at the source start with a whole period already.
[[gnu::noinline]] inline void copyShortDistance(std::uint8_t* dst, std::size_t distance,
                                                std::size_t n) noexcept {
    const std::uint8_t* src = dst - distance;
    std::uint8_t pattern[16];
    std::size_t step = distance;
    if (distance >= 8) {
        std::memcpy(pattern, src, 16);
    } else {
        for (unsigned i = 0; i < 16; ++i) pattern[i] = src[copy_detail::kPatternIndex[distance][i]];
        step = 16 - 16 % distance;
    }
    for (std::size_t at = 0; at < n; at += step) std::memcpy(dst + at, pattern, 16);
}

// Appends n bytes that start `distance` bytes before dst (1 <= distance). Overlap is the
// point: distance 1 repeats the last byte n times.
inline void copyMatch(std::uint8_t* dst, std::size_t distance, std::size_t n) noexcept {
    if (distance < 16) [[unlikely]] {
        copyShortDistance(dst, distance, n);
        return;
    }
    // Most matches are at most 32 bytes: two unconditional steps cover them without a loop
    // exit to mispredict.
    const std::uint8_t* src = dst - distance;
    copy16(dst, src);
    copy16(dst + 16, src + 16);
    if (n > 32) [[unlikely]] wildCopy(dst + 32, src + 32, n - 32);
}

}  // namespace gaugepoint::lzfse::detail
