#include "GPTEncoder/Utf8.hpp"

#include <cstdint>
#include <cstring>

namespace gaugepoint::utf8 {

namespace {

struct LeadRule {
    std::size_t trailing;           // continuation bytes that follow
    unsigned char low, high;        // allowed range of the first continuation byte
};

// Ranges from the well-formed byte sequence table of the Unicode standard.
bool leadRule(unsigned char lead, LeadRule& rule) noexcept {
    if (lead >= 0xC2 && lead <= 0xDF) rule = {1, 0x80, 0xBF};
    else if (lead == 0xE0) rule = {2, 0xA0, 0xBF};
    else if (lead == 0xED) rule = {2, 0x80, 0x9F};
    else if (lead >= 0xE1 && lead <= 0xEF) rule = {2, 0x80, 0xBF};
    else if (lead == 0xF0) rule = {3, 0x90, 0xBF};
    else if (lead >= 0xF1 && lead <= 0xF3) rule = {3, 0x80, 0xBF};
    else if (lead == 0xF4) rule = {3, 0x80, 0x8F};
    else return false;
    return true;
}

bool asciiWord(const char* p) noexcept {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    return (word & 0x8080808080808080ull) == 0;
}

}  // namespace

std::size_t sequenceLength(std::string_view bytes, std::size_t& subpart) noexcept {
    const auto lead = static_cast<unsigned char>(bytes[0]);
    if (lead < 0x80) return 1;
    LeadRule rule;
    subpart = 1;
    if (!leadRule(lead, rule)) return 0;
    for (std::size_t i = 1; i <= rule.trailing; ++i) {
        if (i >= bytes.size()) return 0;
        const auto b = static_cast<unsigned char>(bytes[i]);
        const unsigned char low = i == 1 ? rule.low : 0x80, high = i == 1 ? rule.high : 0xBF;
        if (b < low || b > high) return 0;
        subpart = i + 1;
    }
    return rule.trailing + 1;
}

bool isValid(std::string_view bytes) noexcept {
    std::size_t i = 0, subpart = 0;
    while (i < bytes.size()) {
        if (i + 8 <= bytes.size() && asciiWord(bytes.data() + i)) {
            i += 8;
            continue;
        }
        const std::size_t length = sequenceLength(bytes.substr(i), subpart);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

std::string repaired(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() + 8);
    std::size_t i = 0, subpart = 0;
    while (i < bytes.size()) {
        const std::size_t length = sequenceLength(bytes.substr(i), subpart);
        if (length > 0) {
            out.append(bytes.substr(i, length));
            i += length;
        } else {
            out.append("\xEF\xBF\xBD");
            i += subpart;
        }
    }
    return out;
}

}  // namespace gaugepoint::utf8
