#define PCRE2_CODE_UNIT_WIDTH 8
#include "gaugepoint/platform/Regex.hpp"

#include <pcre2.h>

#include <memory>

#include "gaugepoint/platform/Fatal.hpp"

namespace gaugepoint {
namespace {

// One match block per thread, large enough for every pattern of the project (at most 10 groups).
pcre2_match_data* threadMatchData() {
    struct Holder {
        pcre2_match_data* data = pcre2_match_data_create(10, nullptr);
        ~Holder() { pcre2_match_data_free(data); }
    };
    thread_local Holder holder;
    if (!holder.data) fatalError("out of memory for a regular expression match block");
    return holder.data;
}

PCRE2_SPTR bytes(std::string_view text) { return reinterpret_cast<PCRE2_SPTR>(text.data()); }

}  // namespace

Regex::Regex(std::string_view pattern, SourceLocation where) {
    int error = 0;
    PCRE2_SIZE offset = 0;
    code_ = pcre2_compile(bytes(pattern), pattern.size(), PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF, &error,
                          &offset, nullptr);
    if (!code_) {
        PCRE2_UCHAR reason[256];
        pcre2_get_error_message(error, reason, sizeof reason);
        std::string message = "regular expression \"" + std::string(pattern) + "\" does not compile at offset " +
                              std::to_string(offset) + ": " + reinterpret_cast<const char*>(reason);
        fatalError(message, where);
    }
    pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE);  // without JIT, matching is slower but the same
}

Regex::~Regex() { pcre2_code_free(code_); }

bool Regex::matches(std::string_view subject) const {
    return pcre2_match(code_, bytes(subject), subject.size(), 0, 0, threadMatchData(), nullptr) >= 0;
}

std::optional<std::string> Regex::replaced(std::string_view subject, std::string_view replacement, bool global) const {
    const uint32_t options = PCRE2_SUBSTITUTE_OVERFLOW_LENGTH | (global ? PCRE2_SUBSTITUTE_GLOBAL : 0);
    std::string out(subject.size() + replacement.size() + 16, '\0');
    for (int attempt = 0; attempt < 2; ++attempt) {
        PCRE2_SIZE length = out.size();
        const int count = pcre2_substitute(code_, bytes(subject), subject.size(), 0, options, threadMatchData(), nullptr,
                                           bytes(replacement), replacement.size(),
                                           reinterpret_cast<PCRE2_UCHAR*>(out.data()), &length);
        if (count == PCRE2_ERROR_NOMEMORY) {
            out.resize(length);  // `length` is now the size needed
            continue;
        }
        if (count <= 0) return std::nullopt;  // no match (or a subject PCRE2 refuses)
        out.resize(length);
        return out;
    }
    return std::nullopt;
}

}  // namespace gaugepoint
