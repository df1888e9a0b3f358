#include "GPTEncoder/MergeCache.hpp"

#include <cstdlib>
#include <cstring>
#include <new>

namespace gaugepoint {

namespace {

// Header word: sequence number (bits 0-31, odd while written), key length (32-39), id count
// (40-47). An empty slot has key length 0; pre-tokens in the cache have at least 2 bytes.
constexpr std::uint64_t kSequenceMask = 0xFFFFFFFFu;

std::uint64_t header(std::uint64_t sequence, std::size_t keyBytes, std::size_t ids) noexcept {
    return (sequence & kSequenceMask) | std::uint64_t{keyBytes} << 32 | std::uint64_t{ids} << 40;
}

}  // namespace

void MergeCache::Free::operator()(std::uint64_t* p) const noexcept { std::free(p); }

// calloc: the pages are the system's zero pages until a slot is written, so an unused cache
// costs no resident memory.
MergeCache::MergeCache() : words_(static_cast<std::uint64_t*>(std::calloc(kSlots * kWords, sizeof(std::uint64_t)))) {
    if (!words_) throw std::bad_alloc();
}

std::size_t MergeCache::lookup(const vocabulary_format::PieceKey& piece, std::uint16_t (&ids)[kMaxIds]) const noexcept {
    if (piece.bytes.size() > kMaxKeyBytes) return 0;
    const std::size_t slot = slotOf(piece.hash);
    const std::uint64_t head = word(slot, 0).load(std::memory_order_acquire);
    const std::size_t keyBytes = (head >> 32) & 0xFF, count = (head >> 40) & 0xFF;
    if ((head & 1) != 0 || keyBytes != piece.bytes.size()) return 0;
    std::uint64_t stored[3], idWords[4];
    for (std::size_t i = 0; i < 3; ++i) stored[i] = word(slot, 1 + i).load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < 4; ++i) idWords[i] = word(slot, 4 + i).load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (word(slot, 0).load(std::memory_order_relaxed) != head) return 0;  // written meanwhile
    const std::uint64_t* key = piece.words;
    if (((key[0] ^ stored[0]) | (key[1] ^ stored[1]) | (key[2] ^ stored[2])) != 0) return 0;
    std::memcpy(ids, idWords, sizeof idWords);
    return count;
}

void MergeCache::store(const vocabulary_format::PieceKey& piece, std::span<const std::uint32_t> ids) noexcept {
    const std::size_t keyBytes = piece.bytes.size();
    if (keyBytes > kMaxKeyBytes || keyBytes < 2 || ids.empty() || ids.size() > kMaxIds) return;
    const std::size_t slot = slotOf(piece.hash);
    std::uint64_t head = word(slot, 0).load(std::memory_order_relaxed);
    if ((head & 1) != 0 || !word(slot, 0).compare_exchange_strong(head, head + 1, std::memory_order_relaxed)) return;
    std::atomic_thread_fence(std::memory_order_release);
    const std::uint64_t* key = piece.words;
    std::uint64_t idWords[4] = {};
    std::uint16_t narrow[kMaxIds] = {};
    for (std::size_t i = 0; i < ids.size(); ++i) narrow[i] = static_cast<std::uint16_t>(ids[i]);
    std::memcpy(idWords, narrow, sizeof narrow);
    for (std::size_t i = 0; i < 3; ++i) word(slot, 1 + i).store(key[i], std::memory_order_relaxed);
    for (std::size_t i = 0; i < 4; ++i) word(slot, 4 + i).store(idWords[i], std::memory_order_relaxed);
    word(slot, 0).store(header(head + 2, keyBytes, ids.size()), std::memory_order_release);
}

void MergeCache::clear() noexcept {
    for (std::size_t slot = 0; slot < kSlots; ++slot) {
        std::uint64_t head = word(slot, 0).load(std::memory_order_relaxed);
        if (((head >> 32) & 0xFF) == 0) continue;
        // A slot being written is left to its writer: what it stores is still correct.
        if ((head & 1) == 0 && word(slot, 0).compare_exchange_strong(head, header(head + 2, 0, 0), std::memory_order_release)) continue;
    }
}

std::size_t MergeCache::count() const noexcept {
    std::size_t n = 0;
    for (std::size_t slot = 0; slot < kSlots; ++slot) n += ((word(slot, 0).load(std::memory_order_relaxed) >> 32) & 0xFF) != 0;
    return n;
}

}  // namespace gaugepoint
