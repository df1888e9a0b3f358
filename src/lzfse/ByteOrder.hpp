#pragma once

// Little-endian loads and stores through memcpy: alignment-free and independent of the
// host's byte order. Callers guarantee the bytes are inside their buffer.

#include <bit>
#include <cstdint>
#include <cstring>

namespace gaugepoint::lzfse::detail {

template <typename T>
constexpr T byteSwap(T v) noexcept {
    if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(v));
    if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(v));
    if constexpr (sizeof(T) == 8) return static_cast<T>(__builtin_bswap64(v));
    return v;
}

template <typename T>
inline T loadLe(const std::uint8_t* p) noexcept {
    T v;
    std::memcpy(&v, p, sizeof v);
    if constexpr (std::endian::native == std::endian::big) v = byteSwap(v);
    return v;
}

template <typename T>
inline void storeLe(std::uint8_t* p, T v) noexcept {
    if constexpr (std::endian::native == std::endian::big) v = byteSwap(v);
    std::memcpy(p, &v, sizeof v);
}

inline std::uint16_t load16(const std::uint8_t* p) noexcept { return loadLe<std::uint16_t>(p); }
inline std::uint32_t load32(const std::uint8_t* p) noexcept { return loadLe<std::uint32_t>(p); }
inline std::uint64_t load64(const std::uint8_t* p) noexcept { return loadLe<std::uint64_t>(p); }

}  // namespace gaugepoint::lzfse::detail
