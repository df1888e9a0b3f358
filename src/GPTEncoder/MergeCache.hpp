#pragma once

// The tokenizer's merge cache: raw pre-token bytes -> the token ids they merge into. Bounded
// and safe to share between threads without a lock:
//
// - A fixed table of kSlots slots (2 MiB of address space, touched as it fills), direct-mapped
//   by a hash of the bytes: a new entry replaces whatever its slot held, so the cache never
//   grows. Pre-tokens longer than kMaxKeyBytes or merging into more than kMaxIds ids are not
//   kept (they are rare and merged each time).
// - Each slot is a sequence lock over eight 64-bit words read and written as atomics: a reader
//   that overlaps a writer sees a changed sequence number and treats the slot as a miss; two
//   writers racing for a slot keep the first (both store what the same bytes merge into).

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "GPTEncoder/VocabularyFormat.hpp"

namespace gaugepoint {

class MergeCache {
public:
    static constexpr std::size_t kSlotBits = 15;
    static constexpr std::size_t kSlots = std::size_t{1} << kSlotBits;
    static constexpr std::size_t kMaxKeyBytes = 24;
    static constexpr std::size_t kMaxIds = 16;

    MergeCache();

    // The ids cached for `piece` are written to `ids`; returns
    // how many, 0 when it is not cached.
    std::size_t lookup(const vocabulary_format::PieceKey& piece, std::uint16_t (&ids)[kMaxIds]) const noexcept;

    // Caches `ids` for `piece`, replacing the slot's entry. Does nothing for a piece or id list
    // that does not fit a slot, or while another thread writes the same slot.
    void store(const vocabulary_format::PieceKey& piece, std::span<const std::uint32_t> ids) noexcept;

    // Starts loading the slot lookup(piece) reads (a hint; no effect on results).
    void prefetch(const vocabulary_format::PieceKey& piece) const noexcept {
        __builtin_prefetch(words_.get() + slotOf(piece.hash) * kWords);
    }

    // Empties every slot.
    void clear() noexcept;

    // The number of pieces cached now.
    std::size_t count() const noexcept;

private:
    static constexpr std::size_t kWords = 8;  // per slot: header, 3 key words, 4 id words

    struct Free {
        void operator()(std::uint64_t* p) const noexcept;
    };

    static std::size_t slotOf(std::uint32_t hash) noexcept { return (hash * 0x9E3779B1u) >> (32 - kSlotBits); }
    std::atomic_ref<std::uint64_t> word(std::size_t slot, std::size_t i) const noexcept {
        return std::atomic_ref<std::uint64_t>(words_[slot * kWords + i]);
    }

    std::unique_ptr<std::uint64_t[], Free> words_;  // kSlots * kWords, zero = empty
};

}  // namespace gaugepoint
