#pragma once

// The compiled GPT-2 vocabulary read in place: token bytes by id, id by bytes, merge rules by rank
// and by pair, and the pre-tokenisation class of every code point. Immutable; thread-safe.

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "GPTEncoder/VocabularyFormat.hpp"

namespace gaugepoint {

// The compiled vocabulary blob and the vocabulary license text embedded at build time.
std::string_view embeddedVocabularyBlob() noexcept;
std::string_view gpt2VocabularyLicense() noexcept;

class Vocabulary {
public:
    using CharClass = vocabulary_format::CharClass;
    struct Merge {
        std::uint32_t rank;    // position among the merges, from 0
        std::uint32_t result;  // id of the merged token
    };

    // The embedded vocabulary, checked once on first use. A malformed blob stops the program.
    static const Vocabulary& shared();

    // Reads a blob in place (it must outlive this object). Throws std::runtime_error naming the defect.
    explicit Vocabulary(std::string_view blob);

    std::uint32_t tokenCount() const noexcept { return header_.tokenCount; }
    std::uint32_t mergeCount() const noexcept { return header_.mergeCount; }

    // The raw bytes of token id. Precondition: id < tokenCount().
    std::string_view bytesOf(std::uint32_t id) const noexcept;

    // The id of the token whose raw bytes are exactly `bytes`, if there is one.
    std::optional<std::uint32_t> idOf(std::string_view bytes) const noexcept {
        const std::uint32_t id = find(vocabulary_format::PieceKey::of(bytes));
        return id == kNone ? std::nullopt : std::optional(id);
    }

    // For the hot loops, results as plain integers (an optional comes back through memory and
    // stalls the load that reads it): kNone when absent.
    static constexpr std::uint32_t kNone = vocabulary_format::kEmptySlot;
    // The id of the token whose bytes are the key's, or kNone.
    std::uint32_t find(const vocabulary_format::PieceKey& key) const noexcept;
    // The rule merging left and right as rank << 16 | result id, or kNone.
    std::uint32_t findMerge(std::uint32_t left, std::uint32_t right) const noexcept {
        // Pairs of one-byte tokens (the first merges of every piece) come from a direct table.
        if ((left | right) < 256 && byteTokensFirst_) return bytePairMerges_[left << 8 | right];
        return findMergeInTable(left, right);
    }

    // Starts loading the table line idOf(key) reads first (a hint; no effect on results).
    void prefetch(const vocabulary_format::PieceKey& key) const noexcept {
        __builtin_prefetch(blob_.data() + layout_.tokenSlots +
                           std::size_t{vocabulary_format::slotOf(key.hash, header_.tokenSlotBits)} *
                               sizeof(vocabulary_format::TokenSlot));
    }

    // The id of the one-byte token for b (every byte has one).
    std::uint32_t byteId(std::uint8_t b) const noexcept { return byteIds_[b]; }

    // The rule merging the adjacent tokens left and right, if any.
    std::optional<Merge> merge(std::uint32_t left, std::uint32_t right) const noexcept {
        const std::uint32_t found = findMerge(left, right);
        if (found == kNone) return std::nullopt;
        return Merge{found >> 16, found & 0xFFFF};
    }

    // The rule of a rank. Precondition: rank < mergeCount().
    vocabulary_format::MergeRule mergeAt(std::uint32_t rank) const noexcept;

    // The pre-tokenisation class of a code point (other for values beyond U+10FFFF).
    CharClass classOf(char32_t c) const noexcept { return c < 128 ? asciiClasses_[c] : classFromTables(c); }

private:
    void checkSections() const;
    CharClass classFromTables(char32_t c) const noexcept;
    std::uint32_t load32(std::size_t offset) const noexcept;

    std::string_view blob_;
    vocabulary_format::Header header_{};
    vocabulary_format::Layout layout_{};
    std::uint32_t findMergeInTable(std::uint32_t left, std::uint32_t right) const noexcept;

    std::uint32_t byteIds_[256]{};
    // Whether ids 0-255 are the one-byte tokens (as in GPT-2), and then findMerge() of each
    // pair of them, indexed left << 8 | right (256 KiB).
    bool byteTokensFirst_ = false;
    std::unique_ptr<std::uint32_t[]> bytePairMerges_;
    CharClass asciiClasses_[128]{};
};

}  // namespace gaugepoint
