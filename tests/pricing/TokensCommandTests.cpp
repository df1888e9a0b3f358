// gaugepoint tokens, run as a child process: output formats, exit codes and error messages.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace {

struct CommandRun {
    int exitCode;
    std::string output;  // stdout and stderr together
};

CommandRun run(const std::string& arguments, const std::string& input) {
    const std::string command = "printf '%s' '" + input + "' | " GAUGEPOINT_BINARY " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    char buffer[512];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(TokensCommand, PrintsIdsTextAndEstimates) {
    const struct {
        const char* arguments;
        const char* input;
        int exitCode;
        const char* output;
    } cases[] = {
        {"tokens encode", "hello world", 0, "[31373,995]\n"},
        {"tokens encode - --json", "hello world", 0, "[31373,995]\n"},
        {"tokens decode", "[31373, 995]", 0, "hello world"},
        {"tokens count", "hello world", 0, "3\n"},
        {"--json tokens count", "我们需要估算令牌", 0, "{\"tokens\":15,\"method\":\"ideographic\",\"rawCount\":12}\n"},
        {"tokens decode", "[31373, 1.5]", 1, "gaugepoint: element 1 of the token ids is not an integer: 1.5E0\n"},
        {"tokens decode", "[31373", 1, "gaugepoint: token ids are not valid JSON: incomplete JSON\n"},
        {"tokens decode", "{}", 1, "gaugepoint: token ids must be a JSON array, not object\n"},
        {"tokens count /nonexistent/file", "", 1, "gaugepoint: cannot read /nonexistent/file: No such file or directory\n"},
    };
    for (const auto& c : cases) {
        const CommandRun result = run(c.arguments, c.input);
        EXPECT_EQ(result.exitCode, c.exitCode) << c.arguments;
        EXPECT_EQ(result.output, c.output) << c.arguments;
    }
    EXPECT_EQ(run("tokens", "").exitCode, 2);
}

}  // namespace
