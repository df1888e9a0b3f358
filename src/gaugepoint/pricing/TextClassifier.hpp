#pragma once

// How the token estimator reads a text: as source code, as ideographic writing, or as plain text.
//
// Source code is judged line by line. Each non-blank line scores
//   1 per symbol character of  { } [ ] ( ) < > ; = + - * / % & _ # @ : | \ ` $
//   2 when it begins with four spaces or a tab
//   2 per marker rare in prose:  "func " "struct " "enum " "import " "var " "const " "def "
//                                "SELECT " "FROM " "WHERE " "<div" "</"
//   1 per marker that is also an English word ("class " "let " "return " "if " "else" "for "
//     "while " "switch " "case "), counted only on indented lines or lines ending in { ; or :
// (each marker once per line). The text is code when the scores add up to at least 4 and to at
// least half its units, where units = white-space-separated words + non-ASCII letters (so CJK
// prose, which has no spaces, is not judged code for a few brackets). Prose that mentions code
// words scores ~0 without symbols; a code line scores several points per word.
//
// Ideographic: at least one ideograph (U+3400-4DBF, 4E00-9FFF, F900-FAFF, 20000-2A6DF, 2A700-2EBEF,
// 30000-3134F) and either fewer than 16 letters (L*, ideographs included) with more than 7
// ideographs, or 16 letters or more with ideographs >= letters / 2 (rounded down).
//
// Ill-formed UTF-8 is read with one U+FFFD per maximal ill-formed subpart. Thread-safe (pure).

#include <cstdint>
#include <string_view>

namespace gaugepoint {

enum class TextKind { plain, ideographic, code };

// The counts behind the classification.
struct TextProfile {
    std::int64_t scalars = 0;       // Unicode scalars
    std::int64_t letters = 0;       // general category L*
    std::int64_t ideographs = 0;    // scalars in the ideograph ranges above
    std::int64_t codeScore = 0;     // sum of the line scores
    std::int64_t units = 0;         // words + non-ASCII letters
};

TextProfile profileText(std::string_view text);

// Code first, then ideographic, else plain. Expects text already trimmed of outer white space.
TextKind classifyText(const TextProfile& profile);

}  // namespace gaugepoint
