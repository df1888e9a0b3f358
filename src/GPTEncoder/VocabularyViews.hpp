#pragma once

// Read-only views of the vocabulary in terms of byte-mapped token strings (see ByteMapping.hpp),
// the form in which encoder.json and vocab.bpe spell tokens. They read the shared compiled tables,
// so they cost nothing to build and never change. Thread-safe.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "GPTEncoder/Vocabulary.hpp"

namespace gaugepoint {

// Token string -> id.
class TokenEncoder {
public:
    explicit TokenEncoder(const Vocabulary& vocabulary) noexcept : vocabulary_(&vocabulary) {}
    // The id of a token string; nullopt for any string that is not a token.
    std::optional<int> find(std::string_view token) const;
    std::size_t size() const noexcept { return vocabulary_->tokenCount(); }

private:
    const Vocabulary* vocabulary_;
};

// Id -> token string, the inverse of TokenEncoder.
class TokenDecoder {
public:
    explicit TokenDecoder(const Vocabulary& vocabulary) noexcept : vocabulary_(&vocabulary) {}
    // The token string of an id; nullopt for ids outside 0 ..< size().
    std::optional<std::string> find(int id) const;
    std::size_t size() const noexcept { return vocabulary_->tokenCount(); }

private:
    const Vocabulary* vocabulary_;
};

// Rank -> merge (the two token strings it joins), in vocab.bpe order.
class MergeList {
public:
    explicit MergeList(const Vocabulary& vocabulary) noexcept : vocabulary_(&vocabulary) {}
    // The merge of a rank. Throws std::out_of_range for rank >= size().
    std::pair<std::string, std::string> at(std::size_t rank) const;
    std::size_t size() const noexcept { return vocabulary_->mergeCount(); }

private:
    const Vocabulary* vocabulary_;
};

// Merge (two token strings) -> rank, its position in vocab.bpe counted from 0.
class MergeRanks {
public:
    explicit MergeRanks(const Vocabulary& vocabulary) noexcept : vocabulary_(&vocabulary) {}
    // The rank of merging left with right; nullopt when vocab.bpe has no such merge.
    std::optional<int> find(std::string_view left, std::string_view right) const;
    std::size_t size() const noexcept { return vocabulary_->mergeCount(); }

private:
    const Vocabulary* vocabulary_;
};

}  // namespace gaugepoint
