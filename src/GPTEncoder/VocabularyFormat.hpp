#pragma once

// Layout of the compiled vocabulary blob. tools/compile_vocabulary.cpp writes it at build time
// from encoder.json and vocab.bpe; Vocabulary reads it in place from the embedded copy, so loading
// costs no parsing and no allocation. Integers are in host byte order (the blob is built on the
// machine that runs it); every section starts on a 4-byte boundary.
//
//   Header
//   u32 tokenOffsets[tokenCount + 1]      token id's raw bytes: tokenBytes[off[id] ..< off[id + 1]]
//   u8  tokenBytes[tokenByteCount]        (padded to 4)
//   TokenSlot tokenSlots[2^tokenSlotBits] open addressing on hashBytes(raw bytes) -> id
//   MergeRule merges[mergeCount]          in rank order (rank = index, counted from 0)
//   MergeSlot mergeSlots[2^mergeSlotBits] open addressing on hashPair(pairKey) -> rank and result
//   u16 classIndex[kCodeSpaceBlocks]      code point >> 8 -> class block
//   u8  classBlocks[classBlockCount][256] CharClass of each code point in the block

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace gaugepoint::vocabulary_format {

inline constexpr char kMagic[8] = {'G', 'P', 'T', '2', 'B', 'P', 'E', '\0'};
inline constexpr std::uint32_t kVersion = 3;
inline constexpr std::uint32_t kEmptySlot = 0xFFFFFFFFu;
inline constexpr std::uint32_t kCodeSpaceBlocks = 0x110000 / 256;
inline constexpr std::uint32_t kMaxSlotBits = 24;
// Ids and ranks are packed into 16 bits each inside merge slots.
inline constexpr std::uint32_t kMaxTokens = 0xFFFF;
inline constexpr std::uint32_t kMaxMerges = 0xFFFF;

// The pre-tokenisation classes of the GPT-2 pattern: \p{L}, \p{N}, White_Space, everything else.
enum class CharClass : std::uint8_t { other = 0, letter = 1, number = 2, space = 3 };

struct Header {
    char magic[8];
    std::uint32_t version;
    std::uint32_t tokenCount;
    std::uint32_t tokenByteCount;
    std::uint32_t tokenSlotBits;
    std::uint32_t mergeCount;
    std::uint32_t mergeSlotBits;
    std::uint32_t classBlockCount;
    std::uint32_t totalSize;  // bytes of the whole blob, header included
};

// A token's id with its length and first bytes inline, so most lookups touch one cache line.
struct TokenSlot {
    std::uint32_t id;      // or kEmptySlot
    std::uint8_t length;   // byte length, 255 for 255 and more
    char prefix[11];       // the first bytes, zero-padded
};
inline constexpr std::size_t kInlineTokenBytes = sizeof(TokenSlot::prefix);

struct MergeRule {
    std::uint32_t left, right, result;  // token ids
};

struct MergeSlot {
    std::uint32_t pair;           // pairKey(left, right), or kEmptySlot
    std::uint32_t rankAndResult;  // rank << 16 | result id
};

constexpr std::uint32_t pairKey(std::uint32_t left, std::uint32_t right) noexcept { return left << 16 | right; }

// Byte offsets of the sections; both the writer and the reader derive them from the header.
struct Layout {
    std::size_t tokenOffsets, tokenBytes, tokenSlots, merges, mergeSlots, classIndex, classBlocks, total;
};

constexpr std::size_t alignTo4(std::size_t n) noexcept { return (n + 3) & ~std::size_t{3}; }

// Precondition: slot bits <= kMaxSlotBits (the reader checks before calling).
constexpr Layout layoutOf(const Header& h) noexcept {
    Layout l{};
    l.tokenOffsets = sizeof(Header);
    l.tokenBytes = l.tokenOffsets + (std::size_t{h.tokenCount} + 1) * sizeof(std::uint32_t);
    l.tokenSlots = alignTo4(l.tokenBytes + h.tokenByteCount);
    l.merges = l.tokenSlots + (std::size_t{1} << h.tokenSlotBits) * sizeof(TokenSlot);
    l.mergeSlots = l.merges + std::size_t{h.mergeCount} * sizeof(MergeRule);
    l.classIndex = l.mergeSlots + (std::size_t{1} << h.mergeSlotBits) * sizeof(MergeSlot);
    l.classBlocks = l.classIndex + kCodeSpaceBlocks * sizeof(std::uint16_t);
    l.total = l.classBlocks + std::size_t{h.classBlockCount} * 256;
    return l;
}

// The last 1-7 bytes of s as one word, read with at most two loads (no byte loop).
inline std::uint64_t tailWord(const char* p, std::size_t n) noexcept {
    std::uint32_t a = 0, b = 0;
    if (n >= 4) {
        std::memcpy(&a, p, 4);
        std::memcpy(&b, p + n - 4, 4);
    } else if (n > 0) {
        a = static_cast<unsigned char>(p[0]) | static_cast<unsigned char>(p[n / 2]) << 8;
        b = static_cast<unsigned char>(p[n - 1]);
    }
    return std::uint64_t{a} << 32 | b;
}

// Hash of a token's raw bytes. Writer and reader must agree; the slot is the top `bits` bits.
inline std::uint32_t hashBytes(std::string_view s) noexcept {
    std::uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
    const char* p = s.data();
    std::size_t n = s.size();
    for (; n >= 8; p += 8, n -= 8) {
        std::uint64_t word;
        std::memcpy(&word, p, 8);
        h = (h ^ word) * 0xFF51AFD7ED558CCDull;
        h ^= h >> 32;
    }
    h = (h ^ tailWord(p, n)) * 0xC4CEB9FE1A85EC53ull;
    h ^= h >> 29;
    return static_cast<std::uint32_t>((h * 0xFF51AFD7ED558CCDull) >> 32);
}

// Bytes [from, from + n) of p as one little-endian word, zero above them (0 <= n <= 8): at most
// two loads, all inside the range (overlapping loads agree on the bytes they share).
inline std::uint64_t partialWord(const char* p, std::size_t n) noexcept {
    if (n >= 4) {
        std::uint32_t a, b;
        std::memcpy(&a, p, 4);
        std::memcpy(&b, p + n - 4, 4);
        return std::uint64_t{a} | std::uint64_t{b} << (8 * (n - 4));
    }
    if (n == 0) return 0;
    const auto byte = [&](std::size_t i) { return std::uint64_t{static_cast<unsigned char>(p[i])} << (8 * i); };
    return byte(0) | byte(n / 2) | byte(n - 1);
}

// A piece of text as the tokenizer's tables look it up: its bytes, their hashBytes(), and the
// first 24 bytes as three zero-padded words (compared a word at a time, never byte by byte).
struct PieceKey {
    std::string_view bytes;
    std::uint32_t hash;
    std::uint64_t words[3];

    static PieceKey of(std::string_view bytes) noexcept {
        PieceKey key;
        key.set(bytes);
        return key;
    }

    // Makes this the key of `bytes`, in place (hot loops keep keys where they are: copying one
    // whole right after writing its fields stalls on store forwarding).
    void set(std::string_view piece) noexcept {
        bytes = piece;
        hash = hashBytes(piece);
        const std::size_t n = piece.size();
        for (std::size_t i = 0; i < 3; ++i) {
            const std::size_t from = 8 * i;
            words[i] = n > from ? partialWord(piece.data() + from, n - from < 8 ? n - from : 8) : 0;
        }
    }
};

constexpr std::uint32_t hashPair(std::uint32_t key) noexcept { return key * 0x9E3779B1u; }

constexpr std::uint32_t slotOf(std::uint32_t hash, std::uint32_t bits) noexcept { return hash >> (32 - bits); }

}  // namespace gaugepoint::vocabulary_format
