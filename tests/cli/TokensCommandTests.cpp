#include <gtest/gtest.h>

#include "CommandRunner.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

TEST(TokensCommand, PrintsIdsTextAndEstimates) {
    const struct {
        std::vector<std::string> arguments;
        const char* input;
        int exitCode;
        const char* out;
        const char* err;
    } cases[] = {
        {{"tokens", "encode"}, "hello world", 0, "[31373,995]\n", ""},
        {{"tokens", "encode", "-", "--json"}, "hello world", 0, "[31373,995]\n", ""},
        {{"tokens", "decode"}, "[31373, 995]", 0, "hello world", ""},
        {{"tokens", "count"}, "hello world", 0, "3\n", ""},
        {{"--json", "tokens", "count"}, "我们需要估算令牌", 0, "{\"tokens\":15,\"method\":\"ideographic\",\"rawCount\":12}\n", ""},
        {{"tokens", "decode"}, "[31373, 1.5]", 1, "", "gaugepoint: cannot read token ids: [1]: expected an integer, found a fraction\n"},
        {{"tokens", "decode"}, "[31373, 99999999999]", 1, "", "gaugepoint: cannot read token ids: [1]: integer out of range\n"},
        {{"tokens", "decode"}, "{}", 1, "", "gaugepoint: cannot read token ids: the document: expected an array, found an object\n"},
        {{"tokens", "count", "/nonexistent/file"}, "", 1, "", "gaugepoint: cannot read /nonexistent/file: No such file or directory\n"},
    };
    for (const auto& c : cases) {
        const auto result = gaugepoint(c.arguments, c.input);
        EXPECT_EQ(result.exitCode, c.exitCode) << c.input;
        EXPECT_EQ(result.out, c.out) << c.input;
        EXPECT_EQ(result.err, c.err) << c.input;
    }
    const auto truncated = gaugepoint({"tokens", "decode"}, "[31373");
    EXPECT_EQ(truncated.err.rfind("gaugepoint: cannot read token ids: invalid JSON at line 1, column 7", 0), 0u) << truncated.err;
    EXPECT_EQ(gaugepoint({"tokens"}).exitCode, 2);
}

}  // namespace
}  // namespace gaugepoint
