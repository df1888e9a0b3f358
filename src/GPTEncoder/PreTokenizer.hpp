#pragma once

// Splits text into the pieces that the GPT-2 pattern matches, in order:
//   's|'t|'re|'ve|'m|'ll|'d| ?\p{L}+| ?\p{N}+| ?[^\s\p{L}\p{N}]+|\s+(?!\S)|\s+
// where \s is Unicode White_Space and \p{L}, \p{N} are the general categories L* and N*
// (classes from Vocabulary::classOf). A hand-written scanner: one pass, no backtracking.

#include <cstddef>
#include <string_view>

#include "GPTEncoder/Vocabulary.hpp"

namespace gaugepoint {

class PreTokenizer {
public:
    // Precondition: text is well-formed UTF-8 (see utf8::isValid). Both must outlive the scanner.
    PreTokenizer(std::string_view text, const Vocabulary& vocabulary) noexcept : text_(text), vocabulary_(vocabulary) {}

    // The next piece, or an empty view once the text is used up. The pieces cover the text exactly.
    std::string_view next() noexcept;

private:
    using CharClass = Vocabulary::CharClass;
    struct Char {
        CharClass kind;
        std::size_t length;  // UTF-8 bytes
    };

    Char charAt(std::size_t at) const noexcept;
    std::size_t contractionLength(std::size_t at) const noexcept;
    std::size_t runEnd(std::size_t at, CharClass kind) const noexcept;
    std::size_t whiteSpaceEnd(std::size_t at) const noexcept;

    std::string_view text_;
    const Vocabulary& vocabulary_;
    std::size_t position_ = 0;
};

}  // namespace gaugepoint
