#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace gaugepoint {

// The parts joined, in one allocation.
inline std::string concat(std::initializer_list<std::string_view> parts) {
    std::size_t size = 0;
    for (const auto part : parts) size += part.size();
    std::string joined;
    joined.reserve(size);
    for (const auto part : parts) joined.append(part);
    return joined;
}

// `text` without leading and trailing white space and line breaks (Unicode Zs, Zl, Zp, tab,
// U+000A-U+000D and U+0085).
std::string_view trimmed(std::string_view text);

// Unicode lower-case and upper-case forms (locale-independent).
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);

// The one key every name lookup goes through: trimmed, lower-cased, "_" and " " replaced by "-".
std::string normalizedLookupKey(std::string_view name);
// The same key written into `key`, reusing its storage (for hot lookups).
void assignNormalizedLookupKey(std::string& key, std::string_view name);

// `text` fit for one line of a terminal: every control character (C0 with ESC, DEL, C1), line or
// paragraph separator and bidirectional override becomes a space, and a byte that is not UTF-8
// becomes U+FFFD, so a name read from a file can neither break a line nor drive the terminal.
// Every text printed for people passes through it (tables do so cell by cell).
std::string singleLine(std::string_view text);

// Terminal columns `text` occupies: East Asian wide and full-width characters count two,
// combining marks and zero-width characters none, everything else one.
std::size_t displayWidth(std::string_view text);

// `text` cut to at most `maxWidth` terminal columns, ending in "…" when it was cut; never splits
// a character.
std::string truncatedToWidth(std::string_view text, std::size_t maxWidth);

}  // namespace gaugepoint
