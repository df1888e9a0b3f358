#include "gaugepoint/pricing/TextClassifier.hpp"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>

namespace gaugepoint {

namespace {

constexpr std::string_view kSymbols = "{}[]()<>;=+-*/%&_#@:|\\`$";
constexpr std::array<std::string_view, 12> kStrongMarkers = {"func ", "struct ", "enum ", "import ", "var ", "const ",
                                                             "def ", "SELECT ", "FROM ", "WHERE ", "<div", "</"};
constexpr std::array<std::string_view, 9> kWeakMarkers = {"class ", "let ", "return ", "if ", "else", "for ", "while ", "switch ", "case "};

template <std::size_t N>
std::int64_t markersIn(std::string_view line, const std::array<std::string_view, N>& markers) {
    std::int64_t found = 0;
    for (const auto marker : markers) found += line.find(marker) != std::string_view::npos;
    return found;
}

std::int64_t lineScore(std::string_view line) {
    const auto last = line.find_last_not_of(" \t\r\v\f");
    if (last == std::string_view::npos) return 0;
    std::int64_t score = 0;
    for (const char c : line) score += kSymbols.find(c) != std::string_view::npos;
    const bool indented = line.starts_with("    ") || line.starts_with('\t');
    score += indented ? 2 : 0;
    score += 2 * markersIn(line, kStrongMarkers);
    const char end = line[last];
    if (indented || end == '{' || end == ';' || end == ':') score += markersIn(line, kWeakMarkers);
    return score;
}

bool isIdeograph(UChar32 c) {
    return (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xF900 && c <= 0xFAFF) ||
           (c >= 0x20000 && c <= 0x2A6DF) || (c >= 0x2A700 && c <= 0x2EBEF) || (c >= 0x30000 && c <= 0x3134F);
}

void countScalars(std::string_view text, TextProfile& profile) {
    const auto* s = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    bool inWord = false;
    for (std::int32_t i = 0; i < length;) {
        UChar32 c;
        U8_NEXT(s, i, length, c);
        if (c < 0) c = 0xFFFD;
        ++profile.scalars;
        const bool letter = u_isalpha(c);
        profile.letters += letter;
        profile.ideographs += isIdeograph(c);
        const bool space = u_isUWhiteSpace(c);
        profile.units += (!space && !inWord) + (letter && c >= 0x80);
        inWord = !space;
    }
}

}  // namespace

TextProfile profileText(std::string_view text) {
    TextProfile profile;
    countScalars(text, profile);
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        profile.codeScore += lineScore(text.substr(start, end - start));
        start = end + 1;
    }
    return profile;
}

TextKind classifyText(const TextProfile& p) {
    if (p.codeScore >= 4 && 2 * p.codeScore >= p.units) return TextKind::code;
    if (p.ideographs > 0 && (p.letters < 16 ? p.ideographs > 7 : p.ideographs >= p.letters / 2)) return TextKind::ideographic;
    return TextKind::plain;
}

}  // namespace gaugepoint
