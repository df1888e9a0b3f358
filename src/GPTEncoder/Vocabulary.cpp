#include "GPTEncoder/Vocabulary.hpp"

#include <algorithm>
#include <iterator>
#include <cstdio>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "GPTEncoder/ByteMapping.hpp"

namespace gaugepoint {

namespace fmt = vocabulary_format;

namespace {

void require(bool condition, const char* defect) {
    if (!condition) throw std::runtime_error(std::string("vocabulary blob: ") + defect);
}

}  // namespace

const Vocabulary& Vocabulary::shared() {
    static const Vocabulary vocabulary = [] {
        try {
            return Vocabulary(embeddedVocabularyBlob());
        } catch (const std::exception& e) {
            std::fprintf(stderr, "gaugepoint: the embedded GPT-2 vocabulary is unusable: %s\n", e.what());
            std::abort();
        }
    }();
    return vocabulary;
}

Vocabulary::Vocabulary(std::string_view blob) : blob_(blob) {
    require(blob.size() >= sizeof(fmt::Header), "shorter than its header");
    std::memcpy(&header_, blob.data(), sizeof header_);
    require(std::memcmp(header_.magic, fmt::kMagic, sizeof fmt::kMagic) == 0, "wrong magic");
    require(header_.version == fmt::kVersion, "unsupported version");
    require(header_.tokenCount >= 256 && header_.tokenCount <= fmt::kMaxTokens, "token count out of range");
    require(header_.mergeCount <= fmt::kMaxMerges, "merge count out of range");
    require(header_.tokenSlotBits <= fmt::kMaxSlotBits && header_.mergeSlotBits <= fmt::kMaxSlotBits &&
                (std::size_t{1} << header_.tokenSlotBits) > header_.tokenCount &&
                (std::size_t{1} << header_.mergeSlotBits) > header_.mergeCount,
            "hash tables too small");
    layout_ = fmt::layoutOf(header_);
    require(header_.totalSize == layout_.total && blob.size() == layout_.total, "size disagrees with its header");
    checkSections();
    for (char32_t c = 0; c < 128; ++c) asciiClasses_[c] = classFromTables(c);
    constexpr ByteEncoder byteEncoder;
    constexpr ByteDecoder byteDecoder;
    for (unsigned b = 0; b < 256; ++b) {
        const auto bytes = byteDecoder.unmap(byteEncoder[static_cast<std::uint8_t>(b)]);
        const auto id = idOf(*bytes);
        require(id.has_value(), "a byte has no token");
        byteIds_[b] = *id;
    }
    byteTokensFirst_ = std::all_of(std::begin(byteIds_), std::end(byteIds_), [](std::uint32_t id) { return id < 256; });
    if (byteTokensFirst_) {
        bytePairMerges_ = std::make_unique_for_overwrite<std::uint32_t[]>(256 * 256);
        for (std::uint32_t pair = 0; pair < 256 * 256; ++pair) bytePairMerges_[pair] = findMergeInTable(pair >> 8, pair & 0xFF);
    }
}

// Every offset, id and block index in range, so lookups never leave the blob.
void Vocabulary::checkSections() const {
    std::uint32_t previous = 0;
    for (std::uint32_t id = 0; id <= header_.tokenCount; ++id) {
        const auto offset = load32(layout_.tokenOffsets + 4 * std::size_t{id});
        require(offset >= previous && offset <= header_.tokenByteCount && (id == 0 || offset > previous) && (id > 0 || offset == 0),
                "token offsets out of order");
        previous = offset;
    }
    require(previous == header_.tokenByteCount, "token bytes do not add up");
    bool emptyToken = false, emptyMerge = false;  // probing stops only at an empty slot
    for (std::size_t slot = 0; slot < (std::size_t{1} << header_.tokenSlotBits); ++slot) {
        const auto id = load32(layout_.tokenSlots + slot * sizeof(fmt::TokenSlot));
        require(id == fmt::kEmptySlot || id < header_.tokenCount, "token slot out of range");
        emptyToken |= id == fmt::kEmptySlot;
    }
    for (std::uint32_t rank = 0; rank < header_.mergeCount; ++rank) {
        const auto rule = mergeAt(rank);
        require(rule.left < header_.tokenCount && rule.right < header_.tokenCount && rule.result < header_.tokenCount,
                "merge rule out of range");
    }
    for (std::size_t slot = 0; slot < (std::size_t{1} << header_.mergeSlotBits); ++slot) {
        fmt::MergeSlot entry;
        std::memcpy(&entry, blob_.data() + layout_.mergeSlots + slot * sizeof entry, sizeof entry);
        require(entry.pair == fmt::kEmptySlot || (entry.rankAndResult >> 16) < header_.mergeCount, "merge slot out of range");
        emptyMerge |= entry.pair == fmt::kEmptySlot;
    }
    require(emptyToken && emptyMerge, "a hash table has no empty slot");
    for (std::uint32_t block = 0; block < fmt::kCodeSpaceBlocks; ++block) {
        std::uint16_t index;
        std::memcpy(&index, blob_.data() + layout_.classIndex + 2 * std::size_t{block}, sizeof index);
        require(index < header_.classBlockCount, "class index out of range");
    }
}

std::uint32_t Vocabulary::load32(std::size_t offset) const noexcept {
    std::uint32_t value;
    std::memcpy(&value, blob_.data() + offset, sizeof value);
    return value;
}

std::string_view Vocabulary::bytesOf(std::uint32_t id) const noexcept {
    const auto begin = load32(layout_.tokenOffsets + 4 * std::size_t{id});
    const auto end = load32(layout_.tokenOffsets + 4 * (std::size_t{id} + 1));
    return blob_.substr(layout_.tokenBytes + begin, end - begin);
}

// A slot holds the token's length and its first 11 bytes zero-padded: 12 bytes compared as two
// words against the key. Only tokens longer than 11 bytes need their whole bytes compared.
std::uint32_t Vocabulary::find(const fmt::PieceKey& key) const noexcept {
    static_assert(sizeof(fmt::TokenSlot) == 16 && offsetof(fmt::TokenSlot, length) == 4 && fmt::kInlineTokenBytes == 11);
    const std::uint32_t mask = (1u << header_.tokenSlotBits) - 1;
    const std::size_t n = key.bytes.size();
    // Slot bytes 4..11 (length, bytes 0-6) and 12..15 (bytes 7-10) as the key would fill them.
    const std::uint64_t first = (n < 255 ? n : 255) | key.words[0] << 8;
    const auto second = static_cast<std::uint32_t>(key.words[0] >> 56 | key.words[1] << 8);
    const char* slots = blob_.data() + layout_.tokenSlots;
    for (auto slot = fmt::slotOf(key.hash, header_.tokenSlotBits);; slot = (slot + 1) & mask) {
        const char* entry = slots + std::size_t{slot} * sizeof(fmt::TokenSlot);
        std::uint32_t id, tail;
        std::uint64_t head;
        std::memcpy(&id, entry, 4);
        std::memcpy(&head, entry + 4, 8);
        std::memcpy(&tail, entry + 12, 4);
        if (id == fmt::kEmptySlot) return kNone;
        if (head != first || tail != second) continue;
        if (n <= fmt::kInlineTokenBytes || bytesOf(id) == key.bytes) return id;
    }
}

std::uint32_t Vocabulary::findMergeInTable(std::uint32_t left, std::uint32_t right) const noexcept {
    const auto key = fmt::pairKey(left, right);
    const std::uint32_t mask = (1u << header_.mergeSlotBits) - 1;
    for (auto slot = fmt::slotOf(fmt::hashPair(key), header_.mergeSlotBits);; slot = (slot + 1) & mask) {
        fmt::MergeSlot entry;
        std::memcpy(&entry, blob_.data() + layout_.mergeSlots + std::size_t{slot} * sizeof entry, sizeof entry);
        if (entry.pair == fmt::kEmptySlot) return kNone;
        if (entry.pair == key) return entry.rankAndResult;
    }
}

fmt::MergeRule Vocabulary::mergeAt(std::uint32_t rank) const noexcept {
    fmt::MergeRule rule;
    std::memcpy(&rule, blob_.data() + layout_.merges + std::size_t{rank} * sizeof rule, sizeof rule);
    return rule;
}

Vocabulary::CharClass Vocabulary::classFromTables(char32_t c) const noexcept {
    if (c >= 0x110000) return CharClass::other;
    std::uint16_t block;
    std::memcpy(&block, blob_.data() + layout_.classIndex + 2 * std::size_t{c >> 8}, sizeof block);
    return static_cast<CharClass>(static_cast<std::uint8_t>(blob_[layout_.classBlocks + std::size_t{block} * 256 + (c & 0xFF)]) & 3);
}

}  // namespace gaugepoint
