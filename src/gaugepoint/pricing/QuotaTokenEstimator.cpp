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

}  // namespace

QuotaTokenEstimator& QuotaTokenEstimator::shared() {
    static QuotaTokenEstimator estimator;
    return estimator;
}

TokenEstimate QuotaTokenEstimator::estimate(std::string_view text) {
    text = trimmed(text);
    if (text.empty()) return {};
    const TextProfile profile = profileText(text);
    TokenEstimate result;
    switch (classifyText(profile)) {
        case TextKind::code:
            result = {0, EstimationMethod::code, scaledUp(characterCount(text), 2, 7)};
            break;
        case TextKind::ideographic:
            result = {0, EstimationMethod::ideographic, scaledUp(characterCount(text), 3, 2)};
            break;
        case TextKind::plain: {
            std::lock_guard lock(encoderLock);
            result = {0, EstimationMethod::bpe, static_cast<std::int64_t>(encoder.count(text))};
            break;
        }
    }
    result.tokens = scaledUp(result.rawCount, 6, 5);
    return result;
}

}  // namespace gaugepoint
