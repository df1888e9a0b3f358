#pragma once

// A set of 64-bit hashes, for "was this seen before?" over many keys without keeping the keys:
// two keys with one hash read as seen, so a caller must treat "seen" as "maybe" (a lookup to
// make sure), never as a fact. Open addressing with linear probes in a power-of-two table kept at
// most half full: one allocation per growth, none per key. Not for concurrent use.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace gaugepoint {

class HashesSeen {
public:
    // Whether `hash` was seen before; remembers it.
    bool seen(std::uint64_t hash) {
        hash = std::max<std::uint64_t>(hash, 1);  // 0 marks a free slot
        if ((used_ + 1) * 2 > slots_.size()) grow();
        return !place(hash);
    }

private:
    void grow() {
        std::vector<std::uint64_t> old(std::max<std::size_t>(slots_.size() * 2, 1024));
        old.swap(slots_);
        used_ = 0;
        for (const auto hash : old) {
            if (hash) place(hash);
        }
    }
    // False when it was there.
    bool place(std::uint64_t hash) {
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = std::size_t(hash ^ (hash >> 32)) & mask;; i = (i + 1) & mask) {
            if (slots_[i] == hash) return false;
            if (!slots_[i]) {
                slots_[i] = hash;
                ++used_;
                return true;
            }
        }
    }

    std::vector<std::uint64_t> slots_;
    std::size_t used_ = 0;
};

}  // namespace gaugepoint
