#include "gaugepoint/platform/Base64.hpp"

#include <array>

namespace gaugepoint {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kInvalid = 0xff;

constexpr std::array<std::uint8_t, 256> decodingTable() {
    std::array<std::uint8_t, 256> table{};
    for (auto& entry : table) entry = kInvalid;
    for (std::uint8_t i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
    return table;
}
constexpr auto kDecoding = decodingTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t group = std::uint32_t(bytes[i]) << 16 | std::uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        text.push_back(kAlphabet[group >> 18]);
        text.push_back(kAlphabet[(group >> 12) & 63]);
        text.push_back(kAlphabet[(group >> 6) & 63]);
        text.push_back(kAlphabet[group & 63]);
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        const std::uint32_t group = std::uint32_t(bytes[i]) << 16 | (rest == 2 ? std::uint32_t(bytes[i + 1]) << 8 : 0);
        text.push_back(kAlphabet[group >> 18]);
        text.push_back(kAlphabet[(group >> 12) & 63]);
        text.push_back(rest == 2 ? kAlphabet[(group >> 6) & 63] : '=');
        text.push_back('=');
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        // Padding only at the very end: "xx==" or "xxx=".
        const std::size_t padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=') : 0;
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 4 - padding; ++j) {
            const std::uint8_t sextet = kDecoding[static_cast<unsigned char>(text[i + j])];
            if (sextet == kInvalid) return std::nullopt;
            group |= std::uint32_t(sextet) << (18 - 6 * j);
        }
        bytes.push_back(std::uint8_t(group >> 16));
        if (padding < 2) bytes.push_back(std::uint8_t(group >> 8));
        if (padding < 1) bytes.push_back(std::uint8_t(group));
        // The bits a short final group does not use must be zero, or two texts would give the
        // same bytes.
        if ((padding == 2 && (group & 0xffff) != 0) || (padding == 1 && (group & 0xff) != 0)) return std::nullopt;
    }
    return bytes;
}

}  // namespace gaugepoint
