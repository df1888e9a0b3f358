#pragma once

// GPT-2 byte-level BPE tokenizer over the embedded GPT-2 vocabulary (50,257 tokens, 50,000 merges).
//
// Text is UTF-8 and never makes encode fail: before splitting, every maximal ill-formed subpart
// is replaced by U+FFFD, as text decoding does (so "a\xFFb" encodes like "a\uFFFDb"). decode()
// skips ids outside 0...50256 and replaces ill-formed UTF-8 in the joined bytes the same way
// (a lone id such as 447, half of a character, decodes to U+FFFD).
//
// One instance per estimator; every member function is safe to call from several threads.

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "GPTEncoder/MergeCache.hpp"
#include "GPTEncoder/ByteMapping.hpp"
#include "GPTEncoder/Vocabulary.hpp"
#include "GPTEncoder/VocabularyViews.hpp"

namespace gaugepoint {

class GPTEncoder {
public:
    // Cheap: the tables are compiled at build time and shared by every instance.
    GPTEncoder();

    // The token ids of text.
    std::vector<int> encode(std::string_view text);

    // How many ids encode(text) gives, without keeping them.
    std::size_t count(std::string_view text);

    // The ids of text handed to `sink` in order, in batches of at most a few thousand, so a long
    // text never needs all its ids at once. Exceptions from the sink pass through.
    void encode(std::string_view text, const std::function<void(std::span<const int>)>& sink);

    // The text of ids (see above for unknown ids and ill-formed results).
    std::string decode(std::span<const int> tokens) const;

    // Empties the merge cache.
    void clearCache() { cache.clear(); }

    // Raw pre-token bytes (a piece that is not itself one token) -> the ids it merges into.
    // Filled by encode, bounded (see MergeCache.hpp); encode trusts what it finds here.
    MergeCache cache;
    const TokenEncoder encoder;
    const TokenDecoder decoder;
    const MergeList bpeMerges;
    const MergeRanks bpeRanks;
    const ByteEncoder byteEncoder;
    const ByteDecoder byteDecoder;

private:
    template <class Emit>
    void forEachId(std::string_view text, Emit&& emit);
    template <class Emit>
    void pieceIds(const vocabulary_format::PieceKey& piece, Emit& emit);

    const Vocabulary& vocabulary_;
};

}  // namespace gaugepoint
