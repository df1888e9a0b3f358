#pragma once

// The byte-pair merge loop on token ids. Each round takes the adjacent pair with the lowest merge
// rank and merges every non-overlapping occurrence of it, leftmost first; rounds repeat until one
// symbol remains or no adjacent pair has a rank. Short inputs rescan; long ones use a heap, so a
// run of 100,000 letters costs O(n log n), not O(n * rounds).

#include <cstddef>
#include <cstdint>
#include <vector>

#include "GPTEncoder/Vocabulary.hpp"

namespace gaugepoint {

// Merges `symbols` (token ids) in place. Thread-safe: touches nothing but its argument.
void applyMerges(const Vocabulary& vocabulary, std::vector<std::uint32_t>& symbols);

// The same on an array of `n` symbols; returns how many remain.
std::size_t applyMerges(const Vocabulary& vocabulary, std::uint32_t* symbols, std::size_t n);

// The two strategies behind applyMerges, exposed so tests can hold them to each other.
void applyMergesByRescanning(const Vocabulary& vocabulary, std::vector<std::uint32_t>& symbols);
void applyMergesWithHeap(const Vocabulary& vocabulary, std::vector<std::uint32_t>& symbols);

}  // namespace gaugepoint
