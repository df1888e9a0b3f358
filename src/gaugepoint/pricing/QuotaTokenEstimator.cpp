#include "gaugepoint/pricing/QuotaTokenEstimator.hpp"

#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <cstdio>
#include <cstdlib>

#include "gaugepoint/pricing/TextClassifier.hpp"

namespace gaugepoint {

namespace {

// ceil(value * numerator / denominator) for value >= 0; stops the program past int64.
std::int64_t scaledUp(std::int64_t value, std::int64_t numerator, std::int64_t denominator) {
    std::int64_t product = 0, rounded = 0;
    if (__builtin_mul_overflow(value, numerator, &product) || __builtin_add_overflow(product, denominator - 1, &rounded)) {
        std::fprintf(stderr, "gaugepoint: token estimate overflows int64\n");
        std::abort();
    }
    return rounded / denominator;
}

// text without White_Space (and line breaks) at either end.
std::string_view trimmed(std::string_view text) {
    const auto* s = reinterpret_cast<const std::uint8_t*>(text.data());
    std::int32_t start = 0, end = static_cast<std::int32_t>(text.size());
    while (start < end) {
        std::int32_t next = start;
        UChar32 c;
        U8_NEXT(s, next, end, c);
        if (c < 0 || !u_isUWhiteSpace(c)) break;
        start = next;
    }
    while (end > start) {
        std::int32_t previous = end;
        UChar32 c;
        U8_PREV(s, start, previous, c);
        if (c < 0 || !u_isUWhiteSpace(c)) break;
        end = previous;
    }
    return text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start));
}

// Characters as a reader counts them: extended grapheme clusters, so "e" with a combining
// accent, a CRLF line end or a family emoji is one. Ill-formed bytes read as U+FFFD.
std::int64_t characterCount(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<std::int64_t>(text.size()), &status);
    UBreakIterator* breaks = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
    ubrk_setUText(breaks, utext, &status);
    if (U_FAILURE(status)) {
        std::fprintf(stderr, "gaugepoint: cannot count characters: %s\n", u_errorName(status));
        std::abort();  // ICU's own data is missing: the installation is broken
    }
    std::int64_t count = 0;
    for (ubrk_first(breaks); ubrk_next(breaks) != UBRK_DONE;) ++count;
    ubrk_close(breaks);
    utext_close(utext);
    return count;
}

// The trimmed text's estimate from the counts of every method.
TokenEstimate estimateFrom(const TextProfile& profile, std::int64_t bpe, std::int64_t characters) {
    TokenEstimate result;
    switch (classifyText(profile)) {
        case TextKind::code: result = {0, EstimationMethod::code, scaledUp(characters, 2, 7)}; break;
        case TextKind::ideographic: result = {0, EstimationMethod::ideographic, scaledUp(characters, 3, 2)}; break;
        case TextKind::plain: result = {0, EstimationMethod::bpe, bpe}; break;
    }
    result.tokens = scaledUp(result.rawCount, 6, 5);
    return result;
}

constexpr std::size_t kMaxPending = std::size_t{1} << 20;

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

// The end of the longest prefix of `text` that may be counted apart from what follows: just
// after a "\n" between two non-blank bytes; 0 when there is none.
std::size_t lastCleanCut(std::string_view text) {
    for (std::size_t at = text.size(); at-- > 1;) {
        if (text[at] == '\n' && at + 1 < text.size() && !isBlank(text[at - 1]) && !isBlank(text[at + 1])) return at + 1;
    }
    return 0;
}

// Where to cut a stretch with no clean place: after its last line end, else before a character.
std::size_t forcedCut(std::string_view text) {
    if (const auto newline = text.rfind('\n'); newline != std::string_view::npos && newline > 0) return newline + 1;
    std::size_t at = text.size();
    while (at > 0 && (static_cast<unsigned char>(text[at - 1]) & 0xC0) == 0x80) --at;  // not inside a character
    return at > 1 ? at - 1 : text.size();
}

}  // namespace

void QuotaTokenEstimator::Stream::count(std::string_view segment) {
    const TextProfile part = profileText(segment);
    profile_.scalars += part.scalars;
    profile_.letters += part.letters;
    profile_.ideographs += part.ideographs;
    profile_.codeScore += part.codeScore;
    profile_.units += part.units;
    characters_ += characterCount(segment);
    std::lock_guard lock(estimator_.encoderLock);
    bpe_ += static_cast<std::int64_t>(estimator_.encoder.count(segment));
}

void QuotaTokenEstimator::Stream::add(std::string_view piece) {
    pending_.append(piece);
    if (!started_) {
        const std::string probe = pending_ + "x";  // the "x" keeps the end from being trimmed
        pending_.erase(0, probe.size() - trimmed(probe).size());
        if (pending_.empty()) return;
        started_ = true;
    }
    std::size_t cut = lastCleanCut(pending_);
    if (cut == 0 && pending_.size() > kMaxPending) cut = forcedCut(pending_);
    if (cut == 0) return;
    count(std::string_view(pending_).substr(0, cut));
    pending_.erase(0, cut);
}

TokenEstimate QuotaTokenEstimator::Stream::finish() {
    const std::string_view rest = trimmed(pending_);
    if (!rest.empty()) count(rest);
    pending_.clear();
    if (profile_.scalars == 0) return {};
    return estimateFrom(profile_, bpe_, characters_);
}

QuotaTokenEstimator& QuotaTokenEstimator::shared() {
    static QuotaTokenEstimator estimator;
    return estimator;
}

TokenEstimate QuotaTokenEstimator::estimate(std::string_view text) {
    text = trimmed(text);
    if (text.empty()) return {};
    const TextProfile profile = profileText(text);
    // Only the count the classification asks for: a whole text in memory need not pay for all three.
    switch (classifyText(profile)) {
        case TextKind::code:
        case TextKind::ideographic: return estimateFrom(profile, 0, characterCount(text));
        case TextKind::plain: {
            std::lock_guard lock(encoderLock);
            return estimateFrom(profile, static_cast<std::int64_t>(encoder.count(text)), 0);
        }
    }
    return {};
}

}  // namespace gaugepoint
