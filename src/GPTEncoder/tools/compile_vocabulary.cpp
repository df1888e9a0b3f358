// Build-time tool: compiles encoder.json and vocab.bpe into the blob that the GPTEncoder library
// embeds (layout in VocabularyFormat.hpp), so nothing is parsed at run time. It also records the
// pre-tokenisation class of every code point, taken from PCRE2's \p{L} and \p{N} so that the
// library's scanner agrees with the reference pattern engine. Any defect in the inputs fails the
// build with a message naming it.
//
// usage: gpt2_compile_vocabulary ENCODER_JSON MERGES_TXT OUTPUT_BLOB

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <boost/json.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "GPTEncoder/ByteMapping.hpp"
#include "GPTEncoder/VocabularyFormat.hpp"

namespace fmt = gaugepoint::vocabulary_format;

namespace {

struct Tables {
    std::vector<std::string> tokens;  // raw bytes, by id
    std::unordered_map<std::string, std::uint32_t> idOfMapped;
    std::vector<fmt::MergeRule> merges;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

void loadTokens(const std::string& json, Tables& t) {
    const auto object = boost::json::parse(json).as_object();
    if (object.size() > fmt::kMaxTokens) throw std::runtime_error("encoder.json has too many tokens");
    t.tokens.assign(object.size(), {});
    std::vector<bool> seen(object.size());
    constexpr gaugepoint::ByteDecoder byteDecoder;
    for (const auto& [key, value] : object) {
        const std::int64_t id = value.as_int64();
        if (id < 0 || static_cast<std::size_t>(id) >= seen.size() || seen[id])
            throw std::runtime_error("encoder.json: ids are not 0..<count, each once (at " + std::string(key) + ")");
        const auto bytes = byteDecoder.unmap(key);
        if (!bytes || bytes->empty()) throw std::runtime_error("encoder.json: token is not byte-mapped: " + std::string(key));
        seen[id] = true;
        t.tokens[id] = *bytes;
        t.idOfMapped.emplace(key, static_cast<std::uint32_t>(id));
    }
    constexpr gaugepoint::ByteEncoder byteEncoder;
    for (unsigned b = 0; b < 256; ++b)
        if (!t.idOfMapped.contains(std::string(byteEncoder[static_cast<std::uint8_t>(b)])))
            throw std::runtime_error("encoder.json lacks the token of byte " + std::to_string(b));
}

std::uint32_t idOf(const Tables& t, const std::string& mapped, std::size_t line) {
    const auto it = t.idOfMapped.find(mapped);
    if (it == t.idOfMapped.end())
        throw std::runtime_error("vocab.bpe line " + std::to_string(line) + ": '" + mapped + "' is not a token");
    return it->second;
}

void loadMerges(const std::string& text, Tables& t) {
    std::istringstream in(text);
    std::string line;
    if (!std::getline(in, line) || !line.starts_with("#version")) throw std::runtime_error("vocab.bpe: missing #version line");
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::size_t> seen;
    for (std::size_t number = 2; std::getline(in, line); ++number) {
        if (line.empty()) continue;
        const auto space = line.find(' ');
        if (space == std::string::npos || space == 0 || line.find(' ', space + 1) != std::string::npos)
            throw std::runtime_error("vocab.bpe line " + std::to_string(number) + ": not two symbols");
        const std::string left = line.substr(0, space), right = line.substr(space + 1);
        const fmt::MergeRule rule{idOf(t, left, number), idOf(t, right, number), idOf(t, left + right, number)};
        if (!seen.emplace(std::pair{rule.left, rule.right}, number).second)
            throw std::runtime_error("vocab.bpe line " + std::to_string(number) + ": duplicate merge");
        t.merges.push_back(rule);
    }
    if (t.merges.size() > fmt::kMaxMerges) throw std::runtime_error("vocab.bpe has too many merges");
}

std::uint32_t slotBitsFor(std::size_t count) {  // load factor at most one half
    return std::max<std::uint32_t>(4, std::bit_width(count * 2 - 1));
}

std::vector<fmt::TokenSlot> tokenSlots(const Tables& t, std::uint32_t bits) {
    std::vector<fmt::TokenSlot> slots(std::size_t{1} << bits, fmt::TokenSlot{fmt::kEmptySlot, 0, {}});
    for (std::uint32_t id = 0; id < t.tokens.size(); ++id) {
        const std::string& token = t.tokens[id];
        auto slot = fmt::slotOf(fmt::hashBytes(token), bits);
        while (slots[slot].id != fmt::kEmptySlot) {
            if (t.tokens[slots[slot].id] == token) throw std::runtime_error("two ids share the bytes of id " + std::to_string(id));
            slot = (slot + 1) & (slots.size() - 1);
        }
        slots[slot].id = id;
        slots[slot].length = static_cast<std::uint8_t>(std::min<std::size_t>(token.size(), 255));
        token.copy(slots[slot].prefix, fmt::kInlineTokenBytes);
    }
    return slots;
}

std::vector<fmt::MergeSlot> mergeSlots(const Tables& t, std::uint32_t bits) {
    std::vector<fmt::MergeSlot> slots(std::size_t{1} << bits, fmt::MergeSlot{fmt::kEmptySlot, 0});
    for (std::uint32_t rank = 0; rank < t.merges.size(); ++rank) {
        const auto& rule = t.merges[rank];
        const auto key = fmt::pairKey(rule.left, rule.right);
        auto slot = fmt::slotOf(fmt::hashPair(key), bits);
        while (slots[slot].pair != fmt::kEmptySlot) slot = (slot + 1) & (slots.size() - 1);
        slots[slot] = {key, rank << 16 | rule.result};
    }
    return slots;
}

// White_Space, spelled out: PCRE2's \s under UCP also takes U+180E, which is not white space.
bool isWhiteSpace(char32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

std::string utf8Of(char32_t c) {
    std::string s;
    if (c < 0x80) {
        s += static_cast<char>(c);
    } else if (c < 0x800) {
        s += static_cast<char>(0xC0 | (c >> 6));
        s += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        s += static_cast<char>(0xE0 | (c >> 12));
        s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        s += static_cast<char>(0xF0 | (c >> 18));
        s += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (c & 0x3F));
    }
    return s;
}

// Class of every code point (surrogates stay `other`: valid UTF-8 never holds them).
std::vector<fmt::CharClass> classifyCodeSpace() {
    int error = 0;
    PCRE2_SIZE offset = 0;
    const auto pattern = reinterpret_cast<PCRE2_SPTR>(R"((\p{L})|(\p{N}))");
    pcre2_code* code = pcre2_compile(pattern, PCRE2_ZERO_TERMINATED, PCRE2_UTF | PCRE2_UCP | PCRE2_ANCHORED, &error, &offset, nullptr);
    if (code == nullptr) throw std::runtime_error("PCRE2 rejected the class pattern");
    pcre2_match_data* match = pcre2_match_data_create_from_pattern(code, nullptr);
    std::vector<fmt::CharClass> classes(0x110000, fmt::CharClass::other);
    for (char32_t c = 0; c < 0x110000; ++c) {
        if (c >= 0xD800 && c <= 0xDFFF) continue;
        if (isWhiteSpace(c)) {
            classes[c] = fmt::CharClass::space;
            continue;
        }
        const std::string s = utf8Of(c);
        if (pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(s.data()), s.size(), 0, 0, match, nullptr) > 0)
            classes[c] = pcre2_get_ovector_pointer(match)[2] != PCRE2_UNSET ? fmt::CharClass::letter : fmt::CharClass::number;
    }
    pcre2_match_data_free(match);
    pcre2_code_free(code);
    return classes;
}

template <class T>
void append(std::string& blob, const T* data, std::size_t count) {
    blob.append(reinterpret_cast<const char*>(data), count * sizeof(T));
}

std::string buildBlob(const Tables& t) {
    fmt::Header h{};
    std::copy(std::begin(fmt::kMagic), std::end(fmt::kMagic), h.magic);
    h.version = fmt::kVersion;
    h.tokenCount = static_cast<std::uint32_t>(t.tokens.size());
    h.mergeCount = static_cast<std::uint32_t>(t.merges.size());
    h.tokenSlotBits = slotBitsFor(t.tokens.size());
    h.mergeSlotBits = slotBitsFor(t.merges.size() + 1);

    std::vector<std::uint32_t> offsets{0};
    std::string bytes;
    for (const auto& token : t.tokens) offsets.push_back(static_cast<std::uint32_t>((bytes += token).size()));
    h.tokenByteCount = static_cast<std::uint32_t>(bytes.size());

    const auto classes = classifyCodeSpace();
    std::vector<std::uint16_t> index;
    std::map<std::vector<fmt::CharClass>, std::uint16_t> blocks;
    std::vector<fmt::CharClass> blockData;
    for (std::size_t start = 0; start < classes.size(); start += 256) {
        std::vector<fmt::CharClass> block(classes.begin() + start, classes.begin() + start + 256);
        const auto [it, added] = blocks.emplace(block, static_cast<std::uint16_t>(blocks.size()));
        if (added) blockData.insert(blockData.end(), block.begin(), block.end());
        index.push_back(it->second);
    }
    h.classBlockCount = static_cast<std::uint32_t>(blocks.size());
    const auto layout = fmt::layoutOf(h);
    h.totalSize = static_cast<std::uint32_t>(layout.total);

    std::string blob;
    append(blob, &h, 1);
    append(blob, offsets.data(), offsets.size());
    blob += bytes;
    blob.resize(layout.tokenSlots, '\0');
    const auto tokens = tokenSlots(t, h.tokenSlotBits);
    append(blob, tokens.data(), tokens.size());
    append(blob, t.merges.data(), t.merges.size());
    const auto merges = mergeSlots(t, h.mergeSlotBits);
    append(blob, merges.data(), merges.size());
    append(blob, index.data(), index.size());
    append(blob, blockData.data(), blockData.size());
    if (blob.size() != layout.total) throw std::logic_error("blob size disagrees with its layout");
    return blob;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: gpt2_compile_vocabulary ENCODER_JSON MERGES_TXT OUTPUT_BLOB\n";
        return 2;
    }
    try {
        Tables tables;
        loadTokens(readFile(argv[1]), tables);
        loadMerges(readFile(argv[2]), tables);
        const std::string blob = buildBlob(tables);
        std::ofstream out(argv[3], std::ios::binary | std::ios::trunc);
        if (!out.write(blob.data(), static_cast<std::streamsize>(blob.size())) || !out.flush())
            throw std::runtime_error(std::string("cannot write ") + argv[3]);
    } catch (const std::exception& e) {
        std::cerr << "gpt2_compile_vocabulary: " << e.what() << "\n";
        std::remove(argv[3]);
        return 1;
    }
    return 0;
}
