#include "GPTEncoder/VocabularyViews.hpp"

#include <stdexcept>

#include "GPTEncoder/ByteMapping.hpp"

namespace gaugepoint {

namespace {

constexpr ByteEncoder kByteEncoder;
constexpr ByteDecoder kByteDecoder;

std::string mappedToken(const Vocabulary& vocabulary, std::uint32_t id) {
    std::string token;
    kByteEncoder.appendMapped(vocabulary.bytesOf(id), token);
    return token;
}

std::optional<std::uint32_t> idOfMapped(const Vocabulary& vocabulary, std::string_view token) {
    const auto bytes = kByteDecoder.unmap(token);
    if (!bytes || bytes->empty()) return std::nullopt;
    return vocabulary.idOf(*bytes);
}

}  // namespace

std::optional<int> TokenEncoder::find(std::string_view token) const {
    const auto id = idOfMapped(*vocabulary_, token);
    if (!id) return std::nullopt;
    return static_cast<int>(*id);
}

std::optional<std::string> TokenDecoder::find(int id) const {
    if (id < 0 || static_cast<std::size_t>(id) >= size()) return std::nullopt;
    return mappedToken(*vocabulary_, static_cast<std::uint32_t>(id));
}

std::pair<std::string, std::string> MergeList::at(std::size_t rank) const {
    if (rank >= size()) throw std::out_of_range("merge rank " + std::to_string(rank) + " is past the last merge");
    const auto rule = vocabulary_->mergeAt(static_cast<std::uint32_t>(rank));
    return {mappedToken(*vocabulary_, rule.left), mappedToken(*vocabulary_, rule.right)};
}

std::optional<int> MergeRanks::find(std::string_view left, std::string_view right) const {
    const auto leftId = idOfMapped(*vocabulary_, left), rightId = idOfMapped(*vocabulary_, right);
    if (!leftId || !rightId) return std::nullopt;
    const auto merge = vocabulary_->merge(*leftId, *rightId);
    if (!merge) return std::nullopt;
    return static_cast<int>(merge->rank);
}

}  // namespace gaugepoint
