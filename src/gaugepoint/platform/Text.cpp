#include "gaugepoint/platform/Text.hpp"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>
#include <unicode/unistr.h>

#include <algorithm>

namespace gaugepoint {
namespace {

bool isWhitespaceOrNewline(char32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
           c == 0x3000;
}

// Length in bytes of the white-space character starting at `pos`, or 0.
std::size_t whitespaceAt(std::string_view s, std::size_t pos) {
    const auto b0 = static_cast<unsigned char>(s[pos]);
    if (b0 < 0x80) return isWhitespaceOrNewline(b0) ? 1 : 0;
    auto cont = [&](std::size_t i) { return i < s.size() && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80; };
    if ((b0 & 0xE0) == 0xC0 && cont(pos + 1)) {
        return isWhitespaceOrNewline(char32_t((b0 & 0x1F) << 6 | (s[pos + 1] & 0x3F))) ? 2 : 0;
    }
    if ((b0 & 0xF0) == 0xE0 && cont(pos + 1) && cont(pos + 2)) {
        const char32_t c = (b0 & 0x0F) << 12 | (s[pos + 1] & 0x3F) << 6 | (s[pos + 2] & 0x3F);
        return isWhitespaceOrNewline(c) ? 3 : 0;
    }
    return 0;
}

// Start of the UTF-8 character that ends just before `end`.
std::size_t previousCharacterStart(std::string_view s, std::size_t end) {
    std::size_t start = end - 1;
    while (start > 0 && end - start < 4 && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) --start;
    return start;
}

}  // namespace

std::string_view trimmed(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t n = whitespaceAt(text, begin);
        if (n == 0) break;
        begin += n;
    }
    std::size_t end = text.size();
    while (end > begin) {
        const std::size_t start = previousCharacterStart(text, end);
        if (start < begin || whitespaceAt(text, start) != end - start) break;
        end = start;
    }
    return text.substr(begin, end - begin);
}

std::string lowercased(std::string_view text) {
    std::string out;
    icu::UnicodeString::fromUTF8({text.data(), int32_t(text.size())}).toLower(icu::Locale::getRoot()).toUTF8String(out);
    return out;
}

std::string uppercased(std::string_view text) {
    std::string out;
    icu::UnicodeString::fromUTF8({text.data(), int32_t(text.size())}).toUpper(icu::Locale::getRoot()).toUTF8String(out);
    return out;
}

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    int32_t i = 0;
    const auto length = static_cast<int32_t>(text.size());
    while (i < length) {
        UChar32 c;
        U8_NEXT(text.data(), i, length, c);
        if (c < 0) {
            width += 1;  // an invalid byte prints as one replacement character
            continue;
        }
        const auto category = u_charType(c);
        if (category == U_NON_SPACING_MARK || category == U_ENCLOSING_MARK || category == U_FORMAT_CHAR || c == 0x200B) {
            continue;
        }
        const auto eastAsian = u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
        width += (eastAsian == U_EA_WIDE || eastAsian == U_EA_FULLWIDTH) ? 2 : 1;
    }
    return width;
}

std::string truncatedToWidth(std::string_view text, std::size_t maxWidth) {
    if (displayWidth(text) <= maxWidth) return std::string(text);
    std::string out;
    const std::size_t room = maxWidth == 0 ? 0 : maxWidth - 1;  // one column for the ellipsis
    int32_t i = 0;
    const auto length = static_cast<int32_t>(text.size());
    while (i < length) {
        const int32_t start = i;
        UChar32 c;
        U8_NEXT(text.data(), i, length, c);
        const std::string_view character = text.substr(std::size_t(start), std::size_t(i - start));
        if (displayWidth(out) + displayWidth(character) > room) break;
        out.append(character);
    }
    return maxWidth == 0 ? out : out + "…";
}

std::string singleLine(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    int32_t i = 0;
    const auto length = static_cast<int32_t>(text.size());
    while (i < length) {
        const int32_t start = i;
        UChar32 c;
        U8_NEXT(text.data(), i, length, c);
        // Bidirectional embeddings, overrides and isolates would reorder the rest of the line
        // (a name could display as another); bytes that are not UTF-8 show as U+FFFD.
        const bool reorders = (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0x200E ||
                              c == 0x200F || c == 0x061C;
        const bool breaks = c >= 0 && (u_iscntrl(c) || c == 0x2028 || c == 0x2029 || reorders);
        if (breaks) {
            line += ' ';
        } else if (c < 0) {
            line += "\xEF\xBF\xBD";
        } else {
            line.append(text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
        }
    }
    return line;
}

void assignNormalizedLookupKey(std::string& key, std::string_view name) {
    const bool ascii = std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (ascii) {
        // The common case, without ICU: ASCII white space is the only white space ASCII has, and
        // its lower case is the Unicode lower case.
        const auto blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
        while (!name.empty() && blank(name.front())) name.remove_prefix(1);
        while (!name.empty() && blank(name.back())) name.remove_suffix(1);
        key.assign(name);
        for (char& c : key) {
            if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
        }
    } else {
        key = lowercased(trimmed(name));
    }
    for (char& c : key) {
        if (c == '_' || c == ' ') c = '-';
    }
}

std::string normalizedLookupKey(std::string_view name) {
    std::string key;
    assignNormalizedLookupKey(key, name);
    return key;
}

}  // namespace gaugepoint
