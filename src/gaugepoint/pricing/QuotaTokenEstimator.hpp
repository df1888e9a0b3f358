#pragma once

// Token estimates for session records that carry text but no token counts.
//
// The trimmed text (White_Space cut at both ends) is classified (TextClassifier.hpp) and counted:
// plain text by the GPT-2 tokenizer, ideographic text as characters x 1.5, source code as
// characters / 3.5, each rounded up, where characters are grapheme clusters (what a reader counts:
// a CRLF or an accented letter written as two scalars is one). A count above zero is
// then multiplied by 1.2 and rounded up, in exact integer arithmetic (5 gives 6, not 7).

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <cstdint>
#include <mutex>
#include <string_view>

#include <string>

#include "GPTEncoder/GPTEncoder.hpp"
#include "gaugepoint/pricing/TextClassifier.hpp"

namespace gaugepoint {

// How a text was counted; JSON writes "bpe", "ideographic" or "code".
enum class EstimationMethod { bpe, ideographic, code };
BOOST_DESCRIBE_ENUM(EstimationMethod, bpe, ideographic, code)

struct TokenEstimate {
    std::int64_t tokens = 0;    // the estimate, safety factor included
    EstimationMethod method = EstimationMethod::bpe;
    std::int64_t rawCount = 0;  // the count before the 1.2 factor
};
BOOST_DESCRIBE_STRUCT(TokenEstimate, (), (tokens, method, rawCount))

class QuotaTokenEstimator {
public:
    // The one instance the application shares.
    static QuotaTokenEstimator& shared();

    // The estimated token count of text; 0 for empty or all-blank text. Thread-safe. An estimate
    // beyond int64 (impossible for text that fits in memory) stops the program.
    std::int64_t estimateTokens(std::string_view text) { return estimate(text).tokens; }

    // The same, with the method used and the count before the safety factor.
    TokenEstimate estimate(std::string_view text);

    // estimate() of a text given in pieces, in bounded memory: the text is cut where a line
    // ends between two non-blank characters ("x\nY"), where every count of the estimate (GPT-2
    // pieces, characters, words, line scores) adds up exactly, and all three counts are kept
    // until the classification of the whole is known. A stretch of 1 MiB without such a place
    // is cut at a line end or a character instead (the only case that may differ by a token).
    class Stream {
    public:
        explicit Stream(QuotaTokenEstimator& estimator) : estimator_(estimator) {}
        void add(std::string_view piece);
        TokenEstimate finish();

    private:
        void count(std::string_view segment);
        QuotaTokenEstimator& estimator_;
        std::string pending_;
        bool started_ = false;  // leading white space is behind us
        TextProfile profile_;
        std::int64_t bpe_ = 0, characters_ = 0;
    };

    std::mutex encoderLock;  // guards encoder
    GPTEncoder encoder;
};

}  // namespace gaugepoint
