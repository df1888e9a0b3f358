#include "GPTEncoder/GPTEncoder.hpp"

#include "GPTEncoder/BytePairMerger.hpp"
#include "GPTEncoder/PreTokenizer.hpp"
#include "GPTEncoder/Utf8.hpp"

namespace gaugepoint {

GPTEncoder::GPTEncoder()
    : encoder(Vocabulary::shared()),
      decoder(Vocabulary::shared()),
      bpeMerges(Vocabulary::shared()),
      bpeRanks(Vocabulary::shared()),
      vocabulary_(Vocabulary::shared()) {}

std::vector<int> GPTEncoder::encode(std::string_view text) {
    std::string repairedText;
    if (!utf8::isValid(text)) {
        repairedText = utf8::repaired(text);
        text = repairedText;
    }
    std::vector<int> ids;
    ids.reserve(text.size() / 3 + 1);
    std::string key;
    PreTokenizer pieces(text, vocabulary_);
    for (auto piece = pieces.next(); !piece.empty(); piece = pieces.next()) appendPiece(piece, key, ids);
    return ids;
}

std::string GPTEncoder::decode(std::span<const int> tokens) const {
    std::string bytes;
    for (const int id : tokens)
        if (id >= 0 && static_cast<std::uint32_t>(id) < vocabulary_.tokenCount()) bytes += vocabulary_.bytesOf(static_cast<std::uint32_t>(id));
    return utf8::isValid(bytes) ? bytes : utf8::repaired(bytes);
}

// One pre-token: a single byte is its own token; anything longer goes through the cache.
void GPTEncoder::appendPiece(std::string_view piece, std::string& key, std::vector<int>& ids) {
    if (piece.size() == 1) {
        ids.push_back(static_cast<int>(vocabulary_.byteId(static_cast<std::uint8_t>(piece[0]))));
        return;
    }
    key.clear();
    byteEncoder.appendMapped(piece, key);
    if (const auto cached = cache.lookup(std::string_view(key))) {
        appendForm(*cached, key, piece, ids);
        return;
    }
    cache.store(key, mergedForm(piece, key, ids));
}

// The ids of a merged form. A form equal to its key is the whole piece, found by its raw bytes;
// otherwise each symbol is looked up, and a symbol that is no token contributes nothing.
void GPTEncoder::appendForm(std::string_view form, std::string_view key, std::string_view piece, std::vector<int>& ids) const {
    if (form == key) {
        if (const auto id = vocabulary_.idOf(piece)) ids.push_back(static_cast<int>(*id));
        return;
    }
    for (std::size_t start = 0; start <= form.size();) {
        const std::size_t end = std::min(form.find(' ', start), form.size());
        if (end > start) {
            if (const auto id = encoder.find(form.substr(start, end - start))) ids.push_back(*id);
        }
        start = end + 1;
    }
}

// Merges a piece, appends its ids and returns its form for the cache. A piece that is itself a
// token merges into exactly that token (checked over the whole vocabulary by the tests), so the
// lookup stands in for the merge loop.
std::string GPTEncoder::mergedForm(std::string_view piece, std::string_view key, std::vector<int>& ids) const {
    if (const auto whole = vocabulary_.idOf(piece)) {
        ids.push_back(static_cast<int>(*whole));
        return std::string(key);
    }
    std::vector<std::uint32_t> symbols;
    symbols.reserve(piece.size());
    for (const char byte : piece) symbols.push_back(vocabulary_.byteId(static_cast<std::uint8_t>(byte)));
    applyMerges(vocabulary_, symbols);
    std::string form;
    for (const auto id : symbols) {
        if (!form.empty()) form += ' ';
        byteEncoder.appendMapped(vocabulary_.bytesOf(id), form);
        ids.push_back(static_cast<int>(id));
    }
    return form;
}

}  // namespace gaugepoint
