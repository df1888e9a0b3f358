#pragma once

// The reversible byte <-> character mapping of byte-level token strings. Every byte value is
// written as one printable character, so a token string never holds a space or a control byte
// and merge lines can separate their two symbols with a single space.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gaugepoint {

// The code point standing for byte b: 33-126, 161-172 and 174-255 stand for themselves; the other
// 68 byte values take U+0100, U+0101, ... in increasing byte order (so a space is U+0120).
constexpr char32_t mappedCodePoint(std::uint8_t b) noexcept {
    const auto standsForItself = [](unsigned v) {
        return (v >= 33 && v <= 126) || (v >= 161 && v <= 172) || v >= 174;
    };
    if (standsForItself(b)) return b;
    char32_t next = 0x100;
    for (unsigned v = 0; v < b; ++v) next += standsForItself(v) ? 0 : 1;
    return next;
}

// byte -> its one-character string (UTF-8, one or two bytes). Immutable; thread-safe.
class ByteEncoder {
public:
    constexpr ByteEncoder() noexcept {
        for (unsigned b = 0; b < 256; ++b) {
            const char32_t c = mappedCodePoint(static_cast<std::uint8_t>(b));
            if (c < 0x80) {
                utf8_[b] = {static_cast<char>(c), 0};
                length_[b] = 1;
            } else {
                utf8_[b] = {static_cast<char>(0xC0 | (c >> 6)), static_cast<char>(0x80 | (c & 0x3F))};
                length_[b] = 2;
            }
        }
    }

    // The one-character string standing for byte b.
    constexpr std::string_view operator[](std::uint8_t b) const noexcept { return {utf8_[b].data(), length_[b]}; }

    // Appends the mapped form of raw bytes to out (one character per byte).
    void appendMapped(std::string_view bytes, std::string& out) const {
        for (const char byte : bytes) out.append((*this)[static_cast<std::uint8_t>(byte)]);
    }

private:
    std::array<std::array<char, 2>, 256> utf8_{};
    std::array<std::uint8_t, 256> length_{};
};

// character -> byte, the inverse of ByteEncoder. Immutable; thread-safe.
class ByteDecoder {
public:
    constexpr ByteDecoder() noexcept {
        byte_.fill(-1);
        for (unsigned b = 0; b < 256; ++b) byte_[mappedCodePoint(static_cast<std::uint8_t>(b))] = static_cast<std::int16_t>(b);
    }

    // The byte that character c stands for; nullopt when c is none of the 256 characters.
    constexpr std::optional<std::uint8_t> operator[](char32_t c) const noexcept {
        if (c >= byte_.size() || byte_[c] < 0) return std::nullopt;
        return static_cast<std::uint8_t>(byte_[c]);
    }

    // The raw bytes behind a mapped string; nullopt when it holds any other character.
    std::optional<std::string> unmap(std::string_view mapped) const {
        std::string bytes;
        bytes.reserve(mapped.size());
        for (std::size_t i = 0; i < mapped.size();) {
            const auto b0 = static_cast<unsigned char>(mapped[i]);
            char32_t c = b0;
            std::size_t length = 1;
            if (b0 >= 0x80) {  // only two-byte characters (up to U+0143) can be mapped characters
                if ((b0 & 0xE0) != 0xC0 || i + 1 >= mapped.size()) return std::nullopt;
                const auto b1 = static_cast<unsigned char>(mapped[i + 1]);
                if ((b1 & 0xC0) != 0x80) return std::nullopt;
                c = ((b0 & 0x1Fu) << 6) | (b1 & 0x3Fu);
                length = 2;
            }
            const auto byte = (*this)[c];
            if (!byte || (length == 2 && c < 0x80)) return std::nullopt;  // overlong forms are not characters
            bytes.push_back(static_cast<char>(*byte));
            i += length;
        }
        return bytes;
    }

private:
    std::array<std::int16_t, 0x144> byte_{};  // U+0143 is the highest mapped character
};

}  // namespace gaugepoint
