// Conversations piped into `gaugepoint mcp`, checked reply by reply against the sample logs'
// expected figures.

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using boost::json::value;
using testing::gaugepoint;

std::string request(int id, std::string_view method, std::string_view params = "{}") {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":")" + std::string(method) +
           R"(","params":)" + std::string(params) + "}\n";
}

std::string toolCall(int id, std::string_view tool, std::string_view arguments) {
    return request(id, "tools/call", R"({"name":")" + std::string(tool) + R"(","arguments":)" + std::string(arguments) + "}");
}

const std::string kInitialize =
    request(1, "initialize", R"({"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"t","version":"1"}})") +
    R"({"jsonrpc":"2.0","method":"notifications/initialized"})" + "\n";

value expected(std::string_view file) { return json::parse(testing::readFile(testing::testData(file))); }

// A scratch App Group and the sample's log homes; the clock pinned to the sample's last Claude block.
class McpConversation : public ::testing::Test {
protected:
    McpConversation() {
        ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);  // no companion widget file there
    }

    std::vector<std::string> with(std::vector<std::string> args) const {
        args.insert(args.end(), {"--app-group-dir", (dir / "group").string(), "--now", now});
        for (const char* tool : {"claude", "codex", "gemini"}) {
            args.insert(args.end(), {std::string("--") + tool + "-dir", logs + "/" + tool});
        }
        return args;
    }

    // The replies to `input`, one parsed document per line; the process must end well and quietly.
    std::vector<value> converse(const std::string& input) const {
        const auto result = gaugepoint(with({"mcp"}), input);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err, "");
        std::vector<value> replies;
        std::size_t start = 0;
        for (std::size_t end; (end = result.out.find('\n', start)) != std::string::npos; start = end + 1) {
            replies.push_back(json::parse(std::string_view(result.out).substr(start, end - start)));
        }
        EXPECT_EQ(start, result.out.size()) << "a reply without its newline";
        return replies;
    }

    // The structured result of one tool call.
    value structured(std::string_view tool, std::string_view arguments) const {
        const auto replies = converse(toolCall(7, tool, arguments));
        EXPECT_EQ(replies.size(), 1u);
        if (replies.empty() || !replies[0].as_object().contains("result")) {
            ADD_FAILURE() << (replies.empty() ? std::string("no reply") : boost::json::serialize(replies[0]));
            return {};
        }
        EXPECT_FALSE(replies[0].at("result").at("isError").as_bool());
        EXPECT_FALSE(replies[0].at("result").at("content").at(0).at("text").as_string().empty());
        return replies[0].at("result").at("structuredContent");
    }

    testing::ScratchDirectory dir;
    std::string logs = testing::testData("logs").string();
    std::string now = "2026-11-05T15:00:00Z";
};

TEST_F(McpConversation, HandshakeListingAndShutdownAtTheEndOfInput) {
    const auto replies = converse(kInitialize + request(2, "ping") + request(3, "tools/list") +
                                  request(4, "resources/list") +
                                  request(5, "initialize", R"({"protocolVersion":"2024-11-05"})") +
                                  request(6, "initialize", R"({"protocolVersion":"1999-01-01"})"));
    ASSERT_EQ(replies.size(), 6u);  // the notification has no reply
    const auto& init = replies[0].at("result");
    EXPECT_EQ(replies[0].at("id"), 1);
    EXPECT_EQ(init.at("protocolVersion"), "2025-06-18");
    EXPECT_EQ(init.at("serverInfo").at("name"), "gaugepoint");
    EXPECT_TRUE(init.at("capabilities").as_object().contains("tools"));
    EXPECT_TRUE(init.at("capabilities").as_object().contains("resources"));
    EXPECT_EQ(replies[1].at("result"), boost::json::object{});
    std::vector<std::string> tools;
    for (const auto& tool : replies[2].at("result").at("tools").as_array()) {
        tools.emplace_back(tool.at("name").as_string());
        EXPECT_EQ(tool.at("inputSchema").at("type"), "object");
        EXPECT_FALSE(tool.at("description").as_string().empty());
    }
    EXPECT_EQ(tools, (std::vector<std::string>{"quota_status", "usage_report", "session_usage", "can_start"}));
    const auto& resources = replies[3].at("result").at("resources").as_array();
    ASSERT_EQ(resources.size(), 2u);
    EXPECT_EQ(resources[0].at("uri"), "gaugepoint://quota");
    EXPECT_EQ(resources[1].at("uri"), "gaugepoint://usage/today");
    EXPECT_EQ(replies[4].at("result").at("protocolVersion"), "2024-11-05");  // an older version it knows
    EXPECT_EQ(replies[5].at("result").at("protocolVersion"), "2025-06-18");  // else its own
    EXPECT_TRUE(converse("").empty());
}

TEST_F(McpConversation, UsageReportIsTheReportCommandsDocumentWithTheSamplesFigures) {
    const auto daily = structured("usage_report", R"({"report":"daily","timezone":"UTC","provider":"claude"})");
    const auto expectedDaily = expected("logs/expected-daily-UTC.json").at("daily").at("claude").at("UTC").as_array();
    const auto& rows = daily.at("daily").as_array();
    ASSERT_EQ(rows.size(), expectedDaily.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].at("date"), expectedDaily[i].at("date"));
        EXPECT_EQ(rows[i].at("totalTokens"), expectedDaily[i].at("totalTokens")) << rows[i].at("date");
    }
    const auto report = gaugepoint(with({"report", "daily", "--no-scan", "--timezone", "UTC", "--provider", "claude", "--json"}));
    EXPECT_EQ(daily, json::parse(report.out));

    const auto blocks = structured("usage_report", R"({"report":"blocks","since":"2026-10-18"})");
    const auto expectedBlocks = expected("logs/expected-blocks.json").at("blocks").as_array();
    ASSERT_EQ(blocks.at("blocks").as_array().size(), expectedBlocks.size());
    for (std::size_t i = 0; i < expectedBlocks.size(); ++i) {
        EXPECT_EQ(blocks.at("blocks").at(i).at("totalTokens"), expectedBlocks[i].at("totalTokens")) << i;
    }
    const auto sessions = structured("usage_report", R"({"report":"session","provider":"codex","order":"desc"})");
    const auto expectedSessions = expected("logs/expected-sessions.json").at("sessions").at("codex").as_array();
    ASSERT_EQ(sessions.at("sessions").as_array().size(), expectedSessions.size());
    std::int64_t total = 0;
    for (const auto& s : expectedSessions) total += s.at("totalTokens").as_int64();
    EXPECT_EQ(sessions.at("totals").at("totalTokens"), total);
}

TEST_F(McpConversation, SessionUsageFindsTheSessionByIdOrDirectoryAndCountsToday) {
    const auto byId = structured("session_usage", R"({"sessionId":"0aa82c81-d1f7-4b29-99ba-e6bc75e698be"})");
    EXPECT_EQ(byId.at("session").at("totalTokens"), 220235);
    EXPECT_EQ(byId.at("session").at("unpricedTokens"), 220235);
    EXPECT_EQ(byId.at("session").at("provider"), "claude");
    // Today is 2026-11-05 (UTC): every provider's day in the expected figures.
    std::int64_t today = 0;
    const auto daily = expected("logs/expected-daily-UTC.json");
    for (const auto& [provider, zones] : daily.at("daily").as_object()) {
        for (const auto& row : zones.at("UTC").as_array()) {
            if (row.at("date") == "2026-11-05") today += row.at("totalTokens").as_int64();
        }
    }
    EXPECT_EQ(byId.at("today").at("date"), "2026-11-05");
    EXPECT_EQ(byId.at("today").at("totalTokens"), today);

    // The latest of the two sessions that ran there, also from a directory inside it.
    const auto byDirectory = structured("session_usage", R"({"cwd":"/home/dev/notes/drafts/"})");
    EXPECT_EQ(byDirectory.at("session").at("sessionId"), "2d139d10-5838-44e8-8895-f0cc1ba2f736");
    EXPECT_EQ(byDirectory.at("session").at("totalTokens"), 36484);
    EXPECT_TRUE(structured("session_usage", R"({"cwd":"/nowhere"})").at("session").is_null());
}

TEST_F(McpConversation, QuotaStatusAndItsResourceShowTheWindowsAsOfNow) {
    now = "2026-11-06T21:00:00Z";  // after the newest Codex reading, before its five-hour reset
    const auto quota = structured("quota_status", R"({"provider":"codex"})");
    ASSERT_EQ(quota.at("providers").as_array().size(), 1u);
    const auto& windows = quota.at("providers").at(0).at("windows");
    const auto rateLimits = expected("logs/expected-sessions.json").at("codexRateLimits");
    EXPECT_EQ(windows.at(0).at("usedPercent"), rateLimits.at("primary").at("usedPercent"));
    EXPECT_EQ(windows.at(0).at("remainingPercent").as_double(), 99.2);
    EXPECT_EQ(windows.at(0).at("resetsAt"), "2026-11-07T01:40:06Z");
    EXPECT_EQ(windows.at(0).at("reading"), "official");
    EXPECT_EQ(windows.at(1).at("usedPercent"), rateLimits.at("secondary").at("usedPercent"));
    EXPECT_TRUE(windows.at(1).at("pace").as_object().contains("projectedPercent"));

    const auto replies = converse(request(1, "resources/read", R"({"uri":"gaugepoint://quota"})") +
                                  request(2, "resources/read", R"({"uri":"gaugepoint://usage/today"})"));
    ASSERT_EQ(replies.size(), 2u);
    const auto& contents = replies[0].at("result").at("contents").at(0);
    EXPECT_EQ(contents.at("mimeType"), "application/json");
    EXPECT_EQ(json::parse(contents.at("text").as_string()).at("providers").as_array().size(), 3u);
    const auto today = json::parse(replies[1].at("result").at("contents").at(0).at("text").as_string());
    EXPECT_EQ(today.at("daily").at(0).at("date"), "2026-11-06");
}

TEST_F(McpConversation, CanStartWeighsTheTaskAgainstWhatIsLeftAndThePace) {
    // A block limit makes Claude's active block a window: 220,235 tokens of 440,470 is 50 % used,
    // and its pace runs it out before the reset.
    ASSERT_EQ(gaugepoint(with({"scan", "--quiet", "--claude-block-limit", "440470"})).exitCode, 0);
    const auto tight = structured("can_start", R"({"tokens":200000,"provider":"claude"})");
    EXPECT_TRUE(tight.at("canStart").as_bool());
    EXPECT_EQ(tight.at("verdict"), "tight");
    EXPECT_NEAR(tight.at("windows").at(0).at("neededPercent").as_double(), 45.4, 0.05);
    EXPECT_EQ(tight.at("windows").at(0).at("reading"), "estimated");
    const auto no = structured("can_start", R"({"tokens":300000})");
    EXPECT_FALSE(no.at("canStart").as_bool());
    EXPECT_EQ(no.at("verdict"), "no");
    EXPECT_NE(std::string(no.at("reason").as_string()).find("but only 50% is left"), std::string::npos) << no.at("reason");
    const auto fromText = structured("can_start", R"({"text":"Rename the parser module and update its tests."})");
    EXPECT_EQ(fromText.at("estimatedFrom"), "text");
    EXPECT_GT(fromText.at("tokens").as_int64(), 5);
}

TEST_F(McpConversation, BadArgumentsAreInvalidParamsNamingTheToolAndArgument) {
    std::string accented = "x";  // two-byte characters at odd offsets: a cut at 60 bytes would split one
    for (int i = 0; i < 40; ++i) accented += "\u00e9";
    const std::vector<std::pair<std::string, std::string>> cases{
        {toolCall(1, "quota_status", R"({"provider":"cursor"})"), "quota_status: no quota reading of \"cursor\""},
        {toolCall(1, "quota_status", R"({"verbose":true})"), "quota_status: unknown argument \"verbose\""},
        // A long value is cut in the message, never inside a UTF-8 character.
        {toolCall(1, "quota_status", R"({"provider":")" + accented + R"("})"), "quota_status: no quota reading of \"x\u00e9"},
        {toolCall(1, "usage_report", "{}"), "usage_report: the argument \"report\" is required"},
        {request(1, "tools/call", R"({"name":"usage_report"})"), "usage_report: the argument \"report\" is required"},
        {toolCall(1, "usage_report", R"({"report":"hourly"})"), "usage_report: \"report\" must be one of daily"},
        {toolCall(1, "usage_report", R"({"report":"daily","since":"2026-13-01"})"), "usage_report: \"since\" must be a day"},
        {toolCall(1, "usage_report", R"({"report":"daily","since":"2026-11-05","until":"2026-11-01"})"),
         "usage_report: \"until\" 2026-11-01 is before"},
        {toolCall(1, "usage_report", R"({"report":"daily","timezone":"Mars/Olympus"})"), "usage_report: \"timezone\""},
        {toolCall(1, "session_usage", R"({"sessionId":"nope"})"), "session_usage: no session \"nope\""},
        {toolCall(1, "session_usage", R"({"sessionId":42})"), "session_usage: \"sessionId\" must be a string, got 42"},
        {toolCall(1, "can_start", "{}"), "can_start: give \"tokens\" or \"text\""},
        {toolCall(1, "can_start", R"({"tokens":1.5})"), "can_start: \"tokens\" must be a whole number of at least 1"},
        {toolCall(1, "can_start", R"({"tokens":10,"text":"x"})"), "can_start: give \"tokens\" or \"text\""},
        {toolCall(1, "can_start", "[1]"), "can_start: the arguments must be an object"},
        {toolCall(1, "deploy", "{}"), "unknown tool \"deploy\""},
        {request(1, "tools/call", R"({"arguments":{}})"), "tools/call needs \"name\""},
    };
    for (const auto& [input, message] : cases) {
        const auto replies = converse(input);
        ASSERT_EQ(replies.size(), 1u) << input;
        const auto& error = replies[0].at("error");
        EXPECT_EQ(error.at("code"), -32602) << input;
        EXPECT_EQ(std::string(error.at("message").as_string()).rfind(message, 0), 0u) << error.at("message");
    }
}

TEST_F(McpConversation, ACallScansTheLogsOnlyWhenTheLastScanIsOverAMinuteOld) {
    const auto claudeTokens = [&] {
        return structured("usage_report", R"({"report":"daily","provider":"claude"})").at("totals").at("totalTokens");
    };
    const std::string sample = logs;
    logs = (dir / "no-logs").string();  // homes without logs: the scan finds nothing, but it ran
    EXPECT_EQ(claudeTokens(), 0);
    logs = sample;
    EXPECT_EQ(claudeTokens(), 0);  // scanned a moment ago: the stores are read as they are
    const auto stamp = dir / "group" / "quota-last-scan.stamp";
    std::filesystem::last_write_time(stamp, std::filesystem::last_write_time(stamp) - std::chrono::seconds(61));
    EXPECT_EQ(claudeTokens(), 2667716);
}

TEST_F(McpConversation, RepliesEchoTheIdAndWriteNumbersAsTheReportsDo) {
    now = "2026-11-06T21:00:00Z";
    const std::string input = R"({"jsonrpc":"2.0","id":"call-1","method":"tools/call","params":{"name":"quota_status"}})"
                              "\n" R"({"jsonrpc":"2.0","id":3,"result":{}})" "\n"  // a response: nothing to answer
                              R"({"jsonrpc":"2.0","id":null,"method":"ping"})" "\n";
    const auto result = gaugepoint(with({"mcp", "--lang", "zh-Hans"}), input);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto lines = std::count(result.out.begin(), result.out.end(), '\n');
    ASSERT_EQ(lines, 2) << result.out;
    const auto reply = json::parse(result.out.substr(0, result.out.find('\n')));
    EXPECT_EQ(reply.at("id"), "call-1");
    EXPECT_EQ(reply.at("result").at("structuredContent").at("language"), "zh-Hans");
    EXPECT_NE(result.out.find(R"("usedPercent":0.8,)"), std::string::npos);  // not 8E-1
    const auto nullId = json::parse(result.out.substr(result.out.find('\n') + 1));
    EXPECT_EQ(nullId.at("error").at("code"), -32600);  // a null id names no request
}

TEST_F(McpConversation, ProtocolFaultsGetErrorsAndTheServerReadsOn) {
    const std::string oversized = R"({"jsonrpc":"2.0","id":9,"method":"ping","params":{"pad":")" +
                                  std::string(5 << 20, 'x') + "\"}}\n";
    const auto replies = converse(request(1, "prompts/list") + "{not json\n" + "[1,2]\n" + "\"text\"\n" +
                                  R"({"id":5,"method":"ping"})" + "\n" + oversized +
                                  request(7, "resources/read", R"({"uri":"gaugepoint://nope"})") +
                                  R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1}})" +
                                  "\n" + R"({"jsonrpc":"2.0","id":8,"method":"ping"})");  // no newline at the end
    ASSERT_EQ(replies.size(), 8u);
    const std::vector<std::pair<value, int>> errors{{1, -32601},     {nullptr, -32700}, {nullptr, -32600},
                                                    {nullptr, -32600}, {5, -32600},     {nullptr, -32600},
                                                    {7, -32002}};
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(replies[i].at("id"), errors[i].first) << i;
        EXPECT_EQ(replies[i].at("error").at("code"), errors[i].second) << i;
        EXPECT_EQ(replies[i].at("jsonrpc"), "2.0");
    }
    EXPECT_EQ(replies[7].at("id"), 8);
    EXPECT_TRUE(replies[7].as_object().contains("result"));
}

}  // namespace
}  // namespace gaugepoint
