#include "GPTEncoder/PreTokenizer.hpp"

namespace gaugepoint {

std::string_view PreTokenizer::next() noexcept {
    const std::size_t start = position_;
    if (start >= text_.size()) return {};
    std::size_t end = text_[start] == '\'' ? start + contractionLength(start) : start;
    if (end == start) {
        // " ?" takes a single U+0020 only when a letter, digit or other character follows it.
        std::size_t body = start;
        if (text_[start] == ' ' && start + 1 < text_.size() && charAt(start + 1).kind != CharClass::space) body = start + 1;
        const CharClass kind = charAt(body).kind;
        end = kind == CharClass::space ? whiteSpaceEnd(start) : runEnd(body, kind);
    }
    position_ = end;
    return text_.substr(start, end - start);
}

PreTokenizer::Char PreTokenizer::charAt(std::size_t at) const noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(text_.data()) + at;
    const char32_t b0 = p[0];
    if (b0 < 0x80) return {vocabulary_.classOf(b0), 1};
    if (b0 < 0xE0) return {vocabulary_.classOf((b0 & 0x1F) << 6 | (p[1] & 0x3Fu)), 2};
    if (b0 < 0xF0) return {vocabulary_.classOf((b0 & 0x0F) << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu)), 3};
    return {vocabulary_.classOf((b0 & 0x07) << 18 | (p[1] & 0x3Fu) << 12 | (p[2] & 0x3Fu) << 6 | (p[3] & 0x3Fu)), 4};
}

// 's 't 're 've 'm 'll 'd (lower case only); 0 when none follows the apostrophe at `at`.
std::size_t PreTokenizer::contractionLength(std::size_t at) const noexcept {
    const std::string_view rest = text_.substr(at + 1);
    if (rest.starts_with("re") || rest.starts_with("ve") || rest.starts_with("ll")) return 3;
    if (!rest.empty() && (rest[0] == 's' || rest[0] == 't' || rest[0] == 'm' || rest[0] == 'd')) return 2;
    return 0;
}

std::size_t PreTokenizer::runEnd(std::size_t at, CharClass kind) const noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(text_.data());
    const std::size_t n = text_.size();
    for (;;) {
        // ASCII in a tight loop; other characters decoded one by one.
        while (at < n && p[at] < 0x80 && vocabulary_.classOf(p[at]) == kind) ++at;
        if (at >= n || p[at] < 0x80) return at;
        const Char c = charAt(at);
        if (c.kind != kind) return at;
        at += c.length;
    }
}

// \s+(?!\S) then \s+: a run of two or more white-space characters followed by other text leaves
// its last character to the next piece (where " word" may take it); otherwise the whole run.
std::size_t PreTokenizer::whiteSpaceEnd(std::size_t at) const noexcept {
    std::size_t last = at, count = 0;
    while (at < text_.size()) {
        const Char c = charAt(at);
        if (c.kind != CharClass::space) break;
        last = at;
        at += c.length;
        ++count;
    }
    return at == text_.size() || count == 1 ? at : last;
}

}  // namespace gaugepoint
