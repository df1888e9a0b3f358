// The hand-written scanner held to PCRE2 running the GPT-2 pattern itself. White_Space is spelled
// out in the pattern because PCRE2's \s under UCP also takes U+180E.

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "GPTEncoder/PreTokenizer.hpp"

namespace gaugepoint {
namespace {

#define WS R"(\t\n\x0B\f\r \x{85}\x{A0}\x{1680}\x{2000}-\x{200A}\x{2028}\x{2029}\x{202F}\x{205F}\x{3000})"
constexpr const char* kPattern = R"('s|'t|'re|'ve|'m|'ll|'d| ?\p{L}+| ?\p{N}+| ?[^)" WS R"(\p{L}\p{N}]+|[)" WS R"(]+(?![^)" WS R"(])|[)" WS R"(]+)";

class Pcre2Pattern {
public:
    explicit Pcre2Pattern(const char* pattern, std::uint32_t options = 0) {
        int error = 0;
        PCRE2_SIZE offset = 0;
        code_ = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, PCRE2_UTF | PCRE2_UCP | options, &error, &offset, nullptr);
        pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE);
        match_ = pcre2_match_data_create_from_pattern(code_, nullptr);
    }
    ~Pcre2Pattern() {
        pcre2_match_data_free(match_);
        pcre2_code_free(code_);
    }
    // Every match in order, like findall.
    std::vector<std::string> matches(std::string_view text) const {
        std::vector<std::string> found;
        for (PCRE2_SIZE at = 0; at < text.size();) {
            if (pcre2_match(code_, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), at, 0, match_, nullptr) < 0) break;
            const PCRE2_SIZE* span = pcre2_get_ovector_pointer(match_);
            found.emplace_back(text.substr(span[0], span[1] - span[0]));
            at = span[1] > span[0] ? span[1] : span[1] + 1;
        }
        return found;
    }

private:
    pcre2_code* code_;
    pcre2_match_data* match_;
};

std::vector<std::string> scannerPieces(std::string_view text) {
    std::vector<std::string> pieces;
    PreTokenizer scanner(text, Vocabulary::shared());
    for (auto piece = scanner.next(); !piece.empty(); piece = scanner.next()) pieces.emplace_back(piece);
    return pieces;
}

// Characters from every class, weighted toward the ones with rules of their own in the pattern.
const std::vector<std::string> kAlphabet = {
    " ", " ", " ", "  ", "\t", "\n", "\r\n", "\x0B", "\f", "\u0085", "\u00A0", "\u1680", "\u2003", "\u200A", "\u2028", "\u2029",
    "\u202F", "\u205F", "\u3000", "\uFEFF", "\u200B", "\u180E", "\x1C", "\x1F", "'", "'", "'", "s", "t", "re", "ve", "m", "ll",
    "d", "S", "a", "Z", "é", "ß", "Ж", "中", "한", "ǅ", "𝐀", "0", "7", "٣", "²", "Ⅻ", "𝟘", "!", "-", "_", ".", "\"", "\u0301",
    "\u093F", "🚀", "\u200D", "\uFFFD", "\x01", "\x7F"};

TEST(PreTokenizer, AgreesWithPcre2OnGeneratedText) {
    const Pcre2Pattern reference(kPattern);
    std::mt19937 random(7);
    for (int run = 0; run < 20000; ++run) {
        std::string text;
        for (auto n = random() % 24; n > 0; --n) text += kAlphabet[random() % kAlphabet.size()];
        ASSERT_EQ(scannerPieces(text), reference.matches(text)) << "text: " << text;
    }
}

TEST(PreTokenizer, ClassOfEveryCodePointAgreesWithPcre2) {
    const Pcre2Pattern letter(R"(\p{L})", PCRE2_ANCHORED), number(R"(\p{N})", PCRE2_ANCHORED), space("[" WS "]", PCRE2_ANCHORED);
    using Class = Vocabulary::CharClass;
    for (char32_t c = 0; c < 0x110000; ++c) {
        if (c >= 0xD800 && c <= 0xDFFF) continue;
        std::string s;  // c as UTF-8
        if (c < 0x80) s = {static_cast<char>(c)};
        else if (c < 0x800) s = {static_cast<char>(0xC0 | c >> 6), static_cast<char>(0x80 | (c & 0x3F))};
        else if (c < 0x10000) s = {static_cast<char>(0xE0 | c >> 12), static_cast<char>(0x80 | (c >> 6 & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
        else s = {static_cast<char>(0xF0 | c >> 18), static_cast<char>(0x80 | (c >> 12 & 0x3F)), static_cast<char>(0x80 | (c >> 6 & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
        const Class expected = !letter.matches(s).empty() ? Class::letter : !number.matches(s).empty() ? Class::number
                             : !space.matches(s).empty()  ? Class::space  : Class::other;
        ASSERT_EQ(Vocabulary::shared().classOf(c), expected) << "U+" << std::hex << static_cast<std::uint32_t>(c);
    }
}

}  // namespace
}  // namespace gaugepoint
