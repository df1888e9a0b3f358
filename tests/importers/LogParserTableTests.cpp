// Each tool's lines in, its records out: the counting rules of every log format, case by case.

#include <gtest/gtest.h>

#include <map>

#include "TestSupport.hpp"
#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/JsonLineParser.hpp"

namespace gaugepoint {
namespace {

using testing::at;

struct Recorded final : LogRecordSink {
    std::vector<QuotaUsageEntry> entries;
    std::vector<QuotaObservedRateLimits> limits;
    int badLines = 0;
    void usage(QuotaUsageEntry entry) override { entries.push_back(std::move(entry)); }
    void message(QuotaImportedMessage) override {}
    void session(const std::string&, const std::string&) override {}
    void sessionTitle(const std::string&, const std::string&) override {}
    void rateLimits(QuotaObservedRateLimits observed) override { limits.push_back(std::move(observed)); }
    void badLine(std::int64_t, std::string) override { ++badLines; }
};

// The four counts of an entry: input, output, cache read, cache write.
using Counts = std::array<std::int64_t, 4>;
Counts countsOf(const QuotaUsageEntry& entry) {
    return {entry.tokens.inputTokens, entry.tokens.outputTokens, entry.tokens.cacheReadTokens, entry.tokens.cacheWriteTokens};
}

// Feeds `text`'s lines to `tool` as a scan would (padded, in order, state kept).
Recorded readLines(const CodingToolLogs& tool, std::string text, const std::string& path) {
    static JsonLineParser parser;
    const std::size_t length = text.size();
    text.resize(length + kJsonPadding);
    std::vector<LogLine> lines;
    for (std::size_t pos = 0; pos < length;) {
        const std::size_t end = std::min(text.find('\n', pos), length);
        if (end > pos) lines.push_back({std::string_view(text.data() + pos, end - pos), std::int64_t(pos)});
        pos = end + 1;
    }
    Recorded sink;
    std::string state;
    tool.parseLines(lines, {path, QuotaSessionContentCaptureMode::metadataOnly, &parser}, state, sink);
    return sink;
}

Recorded readDocument(const CodingToolLogs& tool, std::string text) {
    static JsonLineParser parser;
    const std::size_t length = text.size();
    text.resize(length + kJsonPadding);
    Recorded sink;
    tool.parseDocument(std::string_view(text).substr(0, length), {"/g/tmp/h/chats/session-1.json",
                                                                  QuotaSessionContentCaptureMode::metadataOnly, &parser},
                       sink);
    return sink;
}

std::string claudeLine(const std::string& id, const std::string& usage, const std::string& model = "claude-sonnet-4-5") {
    return R"({"type":"assistant","sessionId":"s1","cwd":"/src","timestamp":"2026-11-05T10:00:00.000Z","requestId":"r-)" +
           id + R"(","message":{"id":"m-)" + id + R"(","role":"assistant","model":")" + model + R"(","usage":)" + usage +
           "}}\n";
}

TEST(ClaudeCodeLines, CountEachResponseWithItsFourCounts) {
    const auto claude = makeClaudeCodeLogs();
    const struct {
        const char* name;
        std::string lines;
        std::vector<Counts> counts;
        int bad;
    } cases[] = {
        {"all four counts",
         claudeLine("1", R"({"input_tokens":4,"cache_creation_input_tokens":1234,"cache_read_input_tokens":5678,)"
                         R"("cache_creation":{"ephemeral_5m_input_tokens":1000,"ephemeral_1h_input_tokens":234},"output_tokens":250})"),
         {{4, 250, 5678, 1234}}, 0},
        {"an older line without cache fields", claudeLine("2", R"({"input_tokens":10,"output_tokens":20})"), {{10, 20, 0, 0}}, 0},
        {"a user line counts nothing",
         R"({"type":"user","sessionId":"s1","timestamp":"2026-11-05T10:00:00.000Z","message":{"role":"user","content":"hi"}})"
         "\n",
         {}, 0},
        {"a line cut short", claudeLine("3", R"({"input_tokens":1,"output_tokens":1})").substr(0, 60) + "\n", {}, 1},
        {"a negative count", claudeLine("4", R"({"input_tokens":-5,"output_tokens":1})"), {}, 1},
    };
    for (const auto& c : cases) {
        const auto read = readLines(*claude, c.lines, "/h/projects/p/s1.jsonl");
        std::vector<Counts> counts;
        for (const auto& e : read.entries) counts.push_back(countsOf(e));
        EXPECT_EQ(counts, c.counts) << c.name;
        EXPECT_EQ(read.badLines, c.bad) << c.name;
    }
    // The lines of one response share a dedup key; the synthetic model adds nothing.
    const auto twice = readLines(*claude, claudeLine("5", R"({"input_tokens":1,"output_tokens":2})") +
                                              claudeLine("5", R"({"input_tokens":1,"output_tokens":9})"),
                                 "/h/projects/p/s1.jsonl");
    ASSERT_EQ(twice.entries.size(), 2u);
    EXPECT_EQ(twice.entries[0].dedupKey, twice.entries[1].dedupKey);
    EXPECT_EQ(twice.entries[0].timestamp, at("2026-11-05T10:00:00Z"));
}

std::string codexEvent(const std::string& info, const std::string& limits = "") {
    return R"({"timestamp":"2026-11-05T10:00:00.000Z","type":"event_msg","payload":{"type":"token_count","info":)" + info +
           (limits.empty() ? "" : R"(,"rate_limits":)" + limits) + "}}\n";
}

std::string totals(int input, int cached, int output) {
    return R"({"total_token_usage":{"input_tokens":)" + std::to_string(input) + R"(,"cached_input_tokens":)" +
           std::to_string(cached) + R"(,"output_tokens":)" + std::to_string(output) + R"(,"reasoning_output_tokens":0,)" +
           R"("total_tokens":)" + std::to_string(input + output) + "}}";
}

TEST(CodexLines, CountTheGrowthOfTheRunningTotals) {
    const auto codex = makeCodexLogs();
    const std::string head =
        R"({"timestamp":"2026-11-05T09:59:00.000Z","type":"session_meta","payload":{"id":"c1","cwd":"/src"}})" "\n"
        R"({"timestamp":"2026-11-05T09:59:00.000Z","type":"turn_context","payload":{"model":"gpt-5-codex"}})" "\n";
    const auto read = readLines(*codex,
                                head + codexEvent("null", R"({"primary":{"used_percent":17.3,"window_minutes":300,"resets_at":1794015605}})") +
                                    codexEvent(totals(1000, 600, 50)) + codexEvent(totals(1000, 600, 50)) +  // repeated
                                    codexEvent(totals(2500, 1600, 80)),
                                "/c/sessions/2026/11/05/rollout-2026-11-05T09-59-00-c1.jsonl");
    ASSERT_EQ(read.entries.size(), 2u);
    EXPECT_EQ(countsOf(read.entries[0]), (Counts{400, 50, 600, 0}));   // input less its cached part
    EXPECT_EQ(countsOf(read.entries[1]), (Counts{500, 30, 1000, 0}));  // the delta of the totals
    EXPECT_EQ(read.entries[1].model, "gpt-5-codex");
    ASSERT_EQ(read.limits.size(), 1u);
    ASSERT_TRUE(read.limits[0].primary);
    EXPECT_EQ(read.limits[0].primary->usedPercent, 17.3);
    EXPECT_EQ(read.limits[0].primary->windowMinutes, 300);
}

TEST(GeminiDocuments, CountTheResponsesOfTheChat) {
    const auto gemini = makeGeminiLogs();
    const auto read = readDocument(*gemini, R"({"sessionId":"g1","projectHash":"ab","startTime":"2026-11-05T10:00:00Z",
      "messages":[{"id":"u1","timestamp":"2026-11-05T10:00:00Z","type":"user","content":"hi"},
        {"id":"a1","timestamp":"2026-11-05T10:00:05Z","type":"gemini","model":"gemini-2.5-pro",
         "tokens":{"input":9000,"output":300,"cached":4000,"thoughts":500,"tool":20,"total":9820}},
        {"id":"a2","timestamp":"2026-11-05T10:00:09Z","type":"gemini","model":"gemini-2.5-flash","tokens":null}]})");
    ASSERT_EQ(read.entries.size(), 1u);
    EXPECT_EQ(countsOf(read.entries[0]), (Counts{5020, 800, 4000, 0}));  // input - cached + tool; output + thoughts
    EXPECT_EQ(read.entries[0].sessionID, "g1");
    EXPECT_EQ(read.entries[0].model, "gemini-2.5-pro");
}

std::string copilotShutdown(const char* id, const char* model, int input, int output, int cacheRead) {
    return std::string(R"({"type":"session.shutdown","id":")") + id + R"(","timestamp":"2026-11-05T10:00:00.000Z","data":{"modelMetrics":{")" +
           model + R"(":{"requests":{"count":1,"cost":1},"usage":{"inputTokens":)" + std::to_string(input) + R"(,"outputTokens":)" +
           std::to_string(output) + R"(,"cacheReadTokens":)" + std::to_string(cacheRead) + R"(,"cacheWriteTokens":0}}}}})" "\n";
}

// Copilot's shutdowns are running totals per session and model: each counts its growth, a
// repeat nothing, and a smaller total (a restarted counter) a new interval, whole. The totals
// carry over to the next read of the same file through the parser's state.
TEST(CopilotLines, CountTheGrowthOfEachModelsTotalsAcrossReads) {
    const auto copilot = makeCopilotLogs();
    static JsonLineParser parser;
    const LogFileContext file{"/c/session-state/s1/events.jsonl", QuotaSessionContentCaptureMode::metadataOnly, &parser};
    std::string state;
    const auto read = [&](std::string text) {
        const std::size_t length = text.size();
        text.resize(length + kJsonPadding);
        Recorded sink;
        const LogLine line{std::string_view(text.data(), length - 1), 0};
        copilot->parseLines({&line, 1}, file, state, sink);
        std::vector<Counts> counts;
        for (const auto& e : sink.entries) {
            EXPECT_EQ(e.model, "claude-opus-4.6");  // -1m names the same model
            counts.push_back(countsOf(e));
        }
        return counts;
    };
    EXPECT_EQ(read(copilotShutdown("e1", "claude-opus-4.6-1m", 1000, 100, 600)), (std::vector<Counts>{{400, 100, 600, 0}}));
    EXPECT_EQ(read(copilotShutdown("e1", "claude-opus-4.6-1m", 1000, 100, 600)), std::vector<Counts>{});  // repeated
    EXPECT_EQ(read(copilotShutdown("e2", "claude-opus-4.6", 1500, 180, 900)), (std::vector<Counts>{{200, 80, 300, 0}}));
    EXPECT_EQ(read(copilotShutdown("e3", "claude-opus-4.6", 400, 20, 0)), (std::vector<Counts>{{400, 20, 0, 0}}));  // restarted
    EXPECT_EQ(read(copilotShutdown("e4", "claude-opus-4.6", 450, 20, 0)), (std::vector<Counts>{{50, 0, 0, 0}}));
    EXPECT_EQ(read(copilotShutdown("e2", "claude-opus-4.6", 1500, 180, 900)), std::vector<Counts>{});  // copied later
}

// Qwen's prompt count holds its cached part, which is counted once, as cache read; one uuid in
// two files is one response.
TEST(QwenLines, TakeTheCacheOutOfTheInput) {
    const auto qwen = makeQwenLogs();
    const std::string line =
        R"({"uuid":"q2","sessionId":"qa","timestamp":"2026-10-31T03:59:00.000Z","type":"assistant","cwd":"/a","model":"qwen3-coder-plus",)"
        R"("usageMetadata":{"promptTokenCount":15000,"candidatesTokenCount":900,"thoughtsTokenCount":300,"cachedContentTokenCount":12000}})" "\n";
    const auto a = readLines(*qwen, line, "/q/projects/-a/chats/qa.jsonl");
    const auto b = readLines(*qwen, line, "/q/projects/-b/chats/qb.jsonl");
    ASSERT_EQ(a.entries.size(), 1u);
    EXPECT_EQ(countsOf(a.entries[0]), (Counts{3000, 1200, 12000, 0}));
    EXPECT_EQ(a.entries[0].dedupKey, b.entries.at(0).dedupKey);
    EXPECT_EQ(readLines(*qwen, R"({"uuid":"q3","type":"assistant","timestamp":"2026-10-31T03:59:00.000Z","usageMetadata":)"
                               R"({"promptTokenCount":10,"cachedContentTokenCount":20}})" "\n", "/q/projects/-a/chats/qa.jsonl").badLines, 1);
}

// Gemini CLI's append-only chats: a message written again under its id counts once with its last
// tokens; checkpoints ($set messages) and rewinds change the transcript, never take usage away.
TEST(GeminiLines, TheAppendOnlyFormCountsEachResponseOnceWithItsLastTokens) {
    const auto gemini = makeGeminiLogs();
    const auto reply = [](const char* id, const std::string& tokens) {
        return std::string(R"({"id":")") + id + R"(","timestamp":"2026-11-05T10:00:05Z","type":"gemini","model":"gemini-2.5-pro")" +
               (tokens.empty() ? "" : R"(,"tokens":)" + tokens) + "}";
    };
    const std::string text =
        R"({"sessionId":"g5","projectHash":"ab","startTime":"2026-11-05T10:00:00Z","lastUpdated":"2026-11-05T10:00:00Z","kind":"main"})" "\n"
        R"({"id":"u1","timestamp":"2026-11-05T10:00:00Z","type":"user","content":[{"text":"hi"}]})" "\n" +
        reply("a1", "") + "\n" +  // written before its tokens arrived
        reply("a1", R"({"input":100,"output":10,"cached":40,"thoughts":5,"tool":0,"total":115})") + "\n" +
        reply("a1", R"({"input":100,"output":30,"cached":40,"thoughts":5,"tool":2,"total":137})") + "\n" +
        R"({"$set":{"lastUpdated":"2026-11-05T10:01:00Z","summary":"greeting"}})" "\n"
        R"({"$set":{"messages":[)" + reply("a1", R"({"input":100,"output":30,"cached":40,"thoughts":5,"tool":2})") + "," +
        reply("a2", R"({"input":7,"output":1})") + "]}}\n" +
        R"({"$rewindTo":"a1"})" "\n" +
        reply("a3", R"({"input":9,"output":-1})") + "\n" +  // an invalid count: skipped, reported
        reply("a4", R"({"input":50,"output":5})") + "\n";
    const auto read = readLines(*gemini, text, "/g/tmp/proj/chats/session-2026-11-05T10-00-g5.jsonl");
    // The stores keep, per key, the copy with the most output: the last one, as tokens only grow.
    std::map<std::string, Counts> counted;
    for (const auto& e : read.entries) {
        EXPECT_EQ(e.sessionID, "g5");
        if (!counted.contains(e.dedupKey) || countsOf(e)[1] > counted[e.dedupKey][1]) counted[e.dedupKey] = countsOf(e);
    }
    EXPECT_EQ(counted, (std::map<std::string, Counts>{
                           {"g5/a1", {62, 35, 40, 0}}, {"g5/a2", {7, 1, 0, 0}}, {"g5/a4", {50, 5, 0, 0}}}));
    EXPECT_EQ(read.badLines, 1);
}

}  // namespace
}  // namespace gaugepoint
