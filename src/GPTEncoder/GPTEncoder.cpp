#include "GPTEncoder/GPTEncoder.hpp"

#include <iterator>
#include <memory>

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

// Pre-tokens and their ids, in order. Text is repaired first when it is not well-formed UTF-8.
// The table lines of the next piece are requested before this piece is looked up: they are
// random reads in megabytes of tables, and the wait for one overlaps the work on the other.
template <class Emit>
void GPTEncoder::forEachId(std::string_view text, Emit&& emit) {
    std::string repairedText;
    if (!utf8::isValid(text)) {
        repairedText = utf8::repaired(text);
        text = repairedText;
    }
    PreTokenizer pieces(text, vocabulary_);
    const auto prepare = [&](vocabulary_format::PieceKey& key, std::string_view piece) {
        key.bytes = piece;
        if (piece.size() > 1) {
            key.set(piece);
            vocabulary_.prefetch(key);
            cache.prefetch(key);
        }
    };
    vocabulary_format::PieceKey keys[2];
    prepare(keys[0], pieces.next());
    for (std::size_t i = 0; !keys[i].bytes.empty(); i ^= 1) {
        prepare(keys[i ^ 1], pieces.next());
        pieceIds(keys[i], emit);
    }
}

// One pre-token, all on token ids: a single byte is its own token; a piece that is itself a
// token merges into exactly that token (checked over the whole vocabulary by the tests), so one
// lookup stands in for merging; anything else comes from the cache or is merged and cached.
template <class Emit>
void GPTEncoder::pieceIds(const vocabulary_format::PieceKey& key, Emit& emit) {
    const std::string_view piece = key.bytes;
    if (piece.size() == 1) {
        emit(vocabulary_.byteId(static_cast<std::uint8_t>(piece[0])));
        return;
    }
    if (const std::uint32_t whole = vocabulary_.find(key); whole != Vocabulary::kNone) {
        emit(whole);
        return;
    }
    std::uint16_t cached[MergeCache::kMaxIds];
    if (const std::size_t n = cache.lookup(key, cached); n != 0) {
        for (std::size_t i = 0; i < n; ++i) emit(cached[i]);
        return;
    }
    // Up to 64 bytes on the stack; longer pieces (long runs of letters or digits) on the heap.
    std::uint32_t local[64];
    std::unique_ptr<std::uint32_t[]> heap;
    std::uint32_t* symbols = local;
    if (piece.size() > std::size(local)) {
        heap = std::make_unique_for_overwrite<std::uint32_t[]>(piece.size());
        symbols = heap.get();
    }
    for (std::size_t i = 0; i < piece.size(); ++i) symbols[i] = vocabulary_.byteId(static_cast<std::uint8_t>(piece[i]));
    const std::size_t n = applyMerges(vocabulary_, symbols, piece.size());
    for (std::size_t i = 0; i < n; ++i) emit(symbols[i]);
    cache.store(key, {symbols, n});
}

std::vector<int> GPTEncoder::encode(std::string_view text) {
    std::vector<int> ids;
    ids.reserve(text.size() / 3 + 16);
    forEachId(text, [&](std::uint32_t id) { ids.push_back(static_cast<int>(id)); });
    return ids;
}

void GPTEncoder::encode(std::string_view text, const std::function<void(std::span<const int>)>& sink) {
    int batch[4096];
    std::size_t n = 0;
    forEachId(text, [&](std::uint32_t id) {
        batch[n++] = static_cast<int>(id);
        if (n == std::size(batch)) {
            sink({batch, n});
            n = 0;
        }
    });
    if (n != 0) sink({batch, n});
}

std::size_t GPTEncoder::count(std::string_view text) {
    std::size_t n = 0;
    forEachId(text, [&](std::uint32_t) { ++n; });
    return n;
}

std::string GPTEncoder::decode(std::span<const int> tokens) const {
    std::string bytes;
    for (const int id : tokens)
        if (id >= 0 && static_cast<std::uint32_t>(id) < vocabulary_.tokenCount()) bytes += vocabulary_.bytesOf(static_cast<std::uint32_t>(id));
    return utf8::isValid(bytes) ? bytes : utf8::repaired(bytes);
}

}  // namespace gaugepoint
