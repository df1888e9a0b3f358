#include "GPTEncoder/BytePairMerger.hpp"

#include <algorithm>
#include <functional>
#include <optional>

namespace gaugepoint {

namespace {

// Below this many symbols rescanning every pair per round beats keeping a heap.
constexpr std::size_t kHeapThreshold = 48;
constexpr std::uint32_t kNone = 0xFFFFFFFFu;

// Short pieces rescan, but only the pairs a round changed are looked up again: each pair keeps
// its rank (and merged id), and a pair of two symbols the round did not touch is the pair they
// formed before. Merging every pair of the lowest rank, left to right and never overlapping,
// merges exactly every occurrence of that rank's rule (a rank names one pair).
std::size_t mergeByRescanning(const Vocabulary& vocabulary, std::uint32_t* symbols, std::size_t n) {
    std::uint32_t rank[kHeapThreshold], from[kHeapThreshold];
    bool fresh[kHeapThreshold];
    // rank << 16 | result of each pair: ordering by it orders by rank (ranks are unique).
    const auto look = [&](std::size_t i) { rank[i] = vocabulary.findMerge(symbols[i], symbols[i + 1]); };
    for (std::size_t i = 0; i + 1 < n; ++i) look(i);
    while (n > 1) {
        std::uint32_t best = kNone;
        for (std::size_t i = 0; i + 1 < n; ++i) best = std::min(best, rank[i]);
        if (best == kNone) break;
        std::size_t out = 0;
        for (std::size_t i = 0; i < n; ++out) {
            from[out] = static_cast<std::uint32_t>(i);
            fresh[out] = i + 1 < n && rank[i] == best;
            symbols[out] = fresh[out] ? (rank[i] & 0xFFFF) : symbols[i];
            i += fresh[out] ? 2 : 1;
        }
        n = out;
        // In place: pair j reads the rank of pair from[j] >= j, not yet overwritten.
        for (std::size_t j = 0; j + 1 < n; ++j) {
            if (fresh[j] || fresh[j + 1]) {
                look(j);
            } else {
                rank[j] = rank[from[j]];
            }
        }
    }
    return n;
}

}  // namespace

std::size_t applyMerges(const Vocabulary& vocabulary, std::uint32_t* symbols, std::size_t n) {
    if (n <= kHeapThreshold) return mergeByRescanning(vocabulary, symbols, n);
    std::vector<std::uint32_t> v(symbols, symbols + n);
    applyMergesWithHeap(vocabulary, v);
    std::copy(v.begin(), v.end(), symbols);
    return v.size();
}

void applyMerges(const Vocabulary& vocabulary, std::vector<std::uint32_t>& symbols) {
    symbols.resize(applyMerges(vocabulary, symbols.data(), symbols.size()));
}

void applyMergesByRescanning(const Vocabulary& vocabulary, std::vector<std::uint32_t>& symbols) {
    // Any length: the rescanning core works on windows of at most kHeapThreshold symbols only,
    // so longer inputs take the plain rescanning rule here (tests hold the two strategies to
    // each other on long inputs too).
    if (symbols.size() <= kHeapThreshold) {
        symbols.resize(mergeByRescanning(vocabulary, symbols.data(), symbols.size()));
        return;
    }
    while (symbols.size() > 1) {
        std::optional<Vocabulary::Merge> best;
        for (std::size_t i = 0; i + 1 < symbols.size(); ++i) {
            const auto merge = vocabulary.merge(symbols[i], symbols[i + 1]);
            if (merge && (!best || merge->rank < best->rank)) best = merge;
        }
        if (!best) return;
        const auto rule = vocabulary.mergeAt(best->rank);
        std::size_t out = 0;
        for (std::size_t i = 0; i < symbols.size(); ++out) {
            if (i + 1 < symbols.size() && symbols[i] == rule.left && symbols[i + 1] == rule.right) {
                symbols[out] = rule.result;
                i += 2;
            } else {
                symbols[out] = symbols[i++];
            }
        }
        symbols.resize(out);
    }
}

// Symbols form a linked list over their first positions (a merge keeps the left position, so list
// order is position order). The heap holds (rank, position) of candidate pairs; stale entries are
// skipped when popped. One round pops every entry of the lowest rank, which come out left to
// right; pairs created by the round enter the heap only after it, as rescanning would see them.
void applyMergesWithHeap(const Vocabulary& vocabulary, std::vector<std::uint32_t>& symbols) {
    const auto n = static_cast<std::uint32_t>(symbols.size());
    std::vector<std::uint32_t> next(n), previous(n);
    for (std::uint32_t i = 0; i < n; ++i) {
        previous[i] = i == 0 ? kNone : i - 1;
        next[i] = i + 1 < n ? i + 1 : kNone;
    }
    std::vector<std::uint64_t> heap;
    const auto push = [&](std::uint32_t at) {
        if (at == kNone || next[at] == kNone) return;
        if (const auto merge = vocabulary.merge(symbols[at], symbols[next[at]])) {
            heap.push_back(std::uint64_t{merge->rank} << 32 | at);
            std::push_heap(heap.begin(), heap.end(), std::greater<>{});
        }
    };
    for (std::uint32_t i = 0; i + 1 < n; ++i) push(i);

    std::vector<std::uint32_t> merged;
    while (!heap.empty()) {
        const auto rank = static_cast<std::uint32_t>(heap.front() >> 32);
        const auto rule = vocabulary.mergeAt(rank);
        merged.clear();
        while (!heap.empty() && heap.front() >> 32 == rank) {
            const auto at = static_cast<std::uint32_t>(heap.front());
            std::pop_heap(heap.begin(), heap.end(), std::greater<>{});
            heap.pop_back();
            const std::uint32_t right = next[at];
            if (symbols[at] != rule.left || right == kNone || symbols[right] != rule.right) continue;
            symbols[at] = rule.result;
            symbols[right] = kNone;
            next[at] = next[right];
            if (next[right] != kNone) previous[next[right]] = at;
            merged.push_back(at);
        }
        for (const auto at : merged) {
            if (symbols[at] == kNone) continue;
            push(previous[at]);
            push(at);
        }
    }
    std::erase(symbols, kNone);
}

}  // namespace gaugepoint
