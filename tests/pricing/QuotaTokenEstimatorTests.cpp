// QuotaTokenEstimator: the three ways of counting, the 1.2 factor in exact arithmetic, trimming,
// and the code/prose judgement on real snippets.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "gaugepoint/pricing/QuotaTokenEstimator.hpp"
#include "gaugepoint/pricing/TextClassifier.hpp"

namespace gaugepoint {
namespace {

struct Case {
    const char* name;
    std::string text;
    std::int64_t tokens;
    EstimationMethod method;
    std::int64_t rawCount;
};

TEST(QuotaTokenEstimator, CountsEachKindOfText) {
    const std::string code100 = "if (x) {\n    y = 1;\n}\n" + std::string(78, ';');  // 100 scalars after trimming
    const Case cases[] = {
        {"empty", "", 0, EstimationMethod::bpe, 0},
        {"all blank", " \n\t\r\n\u3000\u00A0 ", 0, EstimationMethod::bpe, 0},
        {"two words", "hello world", 3, EstimationMethod::bpe, 2},
        {"trimmed first", "\n\t  hello world \u2029\n", 3, EstimationMethod::bpe, 2},
        {"five tokens: 6, not 7", "one two three four five", 6, EstimationMethod::bpe, 5},
        {"eight ideographs", "我们需要估算令牌", 15, EstimationMethod::ideographic, 12},
        {"seven ideographs are plain", "我们需要估算令", 0, EstimationMethod::bpe, 0},
        {"16 letters, 8 of them ideographs", "abcdefgh 我们需要估算令牌", 32, EstimationMethod::ideographic, 26},  // 17 scalars
        {"18 letters, 8 ideographs", "abcdefghij 我们需要估算令牌", 0, EstimationMethod::bpe, 0},
        {"100 characters of code", code100, 35, EstimationMethod::code, 29},
        {"CRLF is one character", "if (x) {\r\n    y = 1;\r\n}\r\n" + std::string(78, ';'), 35, EstimationMethod::code, 29},
        {"ideographs with combining marks", "我\u0301们\u0301需要估算令牌", 15, EstimationMethod::ideographic, 12},
        {"ill-formed UTF-8 as U+FFFD", "caf\xC3 au lait", 8, EstimationMethod::bpe, 6},
    };
    auto& estimator = QuotaTokenEstimator::shared();
    for (const auto& c : cases) {
        const TokenEstimate estimate = estimator.estimate(c.text);
        EXPECT_EQ(estimate.method, c.method) << c.name;
        if (c.method != EstimationMethod::bpe || c.rawCount > 0) {
            EXPECT_EQ(estimate.rawCount, c.rawCount) << c.name;
            EXPECT_EQ(estimate.tokens, c.tokens) << c.name;
        }
        EXPECT_EQ(estimator.estimateTokens(c.text), estimate.tokens) << c.name;
    }
}

TEST(QuotaTokenEstimator, BpeEstimateIsEncoderCountTimesSixFifthsRoundedUp) {
    auto& estimator = QuotaTokenEstimator::shared();
    GPTEncoder encoder;
    for (const std::string text : {"我们需要估算令", "Tokens, tokens, tokens!", "a", "Grüße aus Köln 🙂"}) {
        const auto count = static_cast<std::int64_t>(encoder.encode(text).size());
        EXPECT_EQ(estimator.estimateTokens(text), (count * 6 + 4) / 5) << text;
    }
}

TEST(TextClassifier, JudgesRealSnippets) {
    const std::pair<const char*, TextKind> snippets[] = {
        {"func greet(name: String) -> String {\n    let greeting = \"Hello, \" + name\n    return greeting\n}", TextKind::code},
        {"for item in inventory:\n    if item.quantity > threshold:\n        reorder(item)", TextKind::code},
        {"def fetch_user(user_id: int) -> dict:\n    \"\"\"Load one user.\"\"\"\n    row = db.execute(\"SELECT * FROM users WHERE id = ?\", (user_id,)).fetchone()\n    return dict(row) if row else {}", TextKind::code},
        {"SELECT id, name FROM users WHERE age > 30 ORDER BY name;", TextKind::code},
        {"SELECT u.id, u.name, COUNT(o.id) AS orders\nFROM users u\nLEFT JOIN orders o ON o.user_id = u.id\nWHERE u.created_at >= '2024-01-01'\nGROUP BY u.id, u.name;", TextKind::code},
        {"<div class=\"card\">\n  <h2>Title</h2>\n  <p>Some text here.</p>\n</div>", TextKind::code},
        {"const total = items.reduce((sum, item) => sum + item.price, 0);", TextKind::code},
        {"{\"tokens\": 12, \"method\": \"bpe\", \"rawCount\": 10}", TextKind::code},
        {"If you import the module before the class is defined, Python will return an error. In that case, move the import "
         "statement to the top of the file, and for each helper function, check whether it is still used; otherwise delete it.", TextKind::plain},
        {"Let me know if this class works for you :)", TextKind::plain},
        {"We waited for a while, and in case the switch fails, let the team return to the old plan or else import a spare.", TextKind::plain},
        {"Here is what we do for each case:\n- check the logs\n- restart the service", TextKind::plain},
        {"Meeting on 2024-01-01 at 10:30", TextKind::plain},
        {"请看第(1)条和第(2)条的规定，然后回复我。", TextKind::ideographic},
    };
    for (const auto& [text, kind] : snippets) {
        const auto profile = profileText(text);
        EXPECT_EQ(classifyText(profile), kind) << text << "\nscore " << profile.codeScore << " units " << profile.units;
    }
}

TEST(QuotaTokenEstimator, AStreamInPiecesGivesTheWholeTextsEstimate) {
    std::string prose, code, chinese;
    for (int i = 0; i < 3000; ++i) {
        prose += "Line " + std::to_string(i) + " of the report, where the quota window resets at noon.\n";
        if (i % 7 == 0) prose += "\n  \n";
        code += "    if (window.usedPercent > " + std::to_string(i) + ") { return limit[" + std::to_string(i) + "]; }\n";
        chinese += "配额窗口在中午重置，用量为百分之" + std::to_string(i) + "。\n";
    }
    for (const std::string& text : {"  \n\t" + prose + "\n\n  ", code, chinese, std::string(" \n "), std::string()}) {
        const TokenEstimate whole = QuotaTokenEstimator::shared().estimate(text);
        for (const std::size_t piece : {1u, 7u, 4096u, 1u << 20}) {
            QuotaTokenEstimator::Stream stream{QuotaTokenEstimator::shared()};
            for (std::size_t at = 0; at < text.size(); at += piece) stream.add(std::string_view(text).substr(at, piece));
            const TokenEstimate streamed = stream.finish();
            EXPECT_EQ(streamed.tokens, whole.tokens) << piece << " " << text.substr(0, 40);
            EXPECT_EQ(streamed.method, whole.method) << piece;
            EXPECT_EQ(streamed.rawCount, whole.rawCount) << piece;
        }
    }
}

TEST(QuotaTokenEstimator, SharedInstanceIsSafeAcrossThreads) {
    const std::string text = "Several threads estimate at once through one shared encoder.";
    const auto expected = QuotaTokenEstimator::shared().estimateTokens(text);
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) mismatches[t] += QuotaTokenEstimator::shared().estimateTokens(text) != expected;
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace gaugepoint
