#pragma once

// GPT-2 byte-level BPE tokenizer over the embedded GPT-2 vocabulary (50,257 tokens, 50,000 merges).
//
// Text is UTF-8 and never makes encode fail: before splitting, every maximal ill-formed subpart
// is replaced by U+FFFD, as text decoding does (so "a\xFFb" encodes like "a\uFFFDb"). decode()
// skips ids outside 0...50256 and replaces ill-formed UTF-8 in the joined bytes the same way
// (a lone id such as 447, half of a character, decodes to U+FFFD).
//
// One instance per estimator; every member function is safe to call from several threads.

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "GPTEncoder/AtomicDict.hpp"
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

    // The text of ids (see above for unknown ids and ill-formed results).
    std::string decode(std::span<const int> tokens) const;

    // Empties the merge cache.
    void clearCache() { cache.removeAll(); }

    // Byte-mapped pre-token (more than one character) -> its merged form, symbols separated by
    // single spaces. Filled by encode, unbounded; encode trusts what it finds here.
    AtomicDict<std::string, std::string> cache;
    const TokenEncoder encoder;
    const TokenDecoder decoder;
    const MergeList bpeMerges;
    const MergeRanks bpeRanks;
    const ByteEncoder byteEncoder;
    const ByteDecoder byteDecoder;

private:
    void appendPiece(std::string_view piece, std::string& key, std::vector<int>& ids);
    void appendForm(std::string_view form, std::string_view key, std::string_view piece, std::vector<int>& ids) const;
    std::string mergedForm(std::string_view piece, std::string_view key, std::vector<int>& ids) const;

    const Vocabulary& vocabulary_;
};

}  // namespace gaugepoint
