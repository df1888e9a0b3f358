#include <gtest/gtest.h>

#include <fstream>

#include "ImporterTestSupport.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint {
namespace {

using testing::LogTree;
namespace fs = std::filesystem;

std::map<std::string, testing::DayTotals> expectedDays(const boost::json::value& document, const char* provider,
                                                       const char* zone) {
    std::map<std::string, testing::DayTotals> days;
    for (const auto& row : document.at("daily").at(provider).at(zone).as_array()) {
        testing::DayTotals day{row.at("inputTokens").as_int64(), row.at("outputTokens").as_int64(),
                               row.at("cacheCreationTokens").as_int64(), row.at("cacheReadTokens").as_int64(), {}};
        for (const auto& model : row.at("modelsUsed").as_array()) day.models.insert(std::string(model.as_string()));
        days[std::string(row.at("date").as_string())] = day;
    }
    return days;
}

// The stores' files, byte for byte.
std::map<std::string, std::string> storeFiles(const LogTree& tree) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(*tree.configuration.appGroupDirectory)) {
        files[entry.path().filename().string()] = testing::readFile(entry.path());
    }
    return files;
}

TEST(LogScan, TheSampleTreeGivesTheReferenceFiguresAndASecondScanWritesNothing) {
    const LogTree tree;
    const auto first = tree.scan();
    EXPECT_EQ(first.filesRead, 34);
    EXPECT_EQ(first.newSessions, 32);
    EXPECT_EQ(first.tokens, 2667716 + 432815 + 602820);
    EXPECT_EQ(first.linesSkipped, 2);  // one cut short in a Claude file, one inside a Codex file

    const auto usage = tree.usage();
    const auto daily = testing::expectedDocument("expected-daily-UTC.json");
    for (const char* zone : {"UTC", "America/New_York"}) {
        const auto calendar = *LocalCalendar::inTimeZone(zone);
        for (const char* provider : {"claude", "codex", "gemini"}) {
            EXPECT_EQ(testing::dailyTotals(usage, provider, calendar), expectedDays(daily, provider, zone)) << provider << " " << zone;
        }
    }
    const auto sessions = testing::expectedDocument("expected-sessions.json");
    const QuotaSessionCatalogStore catalog{tree.configuration};
    for (const char* provider : {"claude", "codex", "gemini"}) {
        for (const auto& row : sessions.at("sessions").at(provider).as_array()) {
            const auto descriptor = catalog.loadDescriptor("test-machine", std::string(row.at("sessionId").as_string()));
            ASSERT_TRUE(descriptor) << row;
            EXPECT_EQ(descriptor->provider.id, provider);
            EXPECT_EQ(descriptor->tokenUsage.totalTokens(), row.at("totalTokens").as_int64());
            EXPECT_EQ(descriptor->tokenUsage.cacheWriteTokens, row.at("cacheCreationTokens").as_int64());
        }
    }
    const auto limits = tree.usage().latestRateLimits("codex");
    ASSERT_TRUE(limits);
    EXPECT_EQ(limits->observedAt, testing::at("2026-11-06T20:49:30.943Z"));
    EXPECT_EQ(limits->primary, (QuotaObservedRateWindow{0.8, 300, testing::at("2026-11-07T01:40:06Z")}));
    EXPECT_EQ(limits->secondary, (QuotaObservedRateWindow{0.4, 10080, testing::at("2026-11-12T09:30:02Z")}));

    const auto before = storeFiles(tree);
    const auto second = tree.scan();
    EXPECT_EQ(second.filesRead, 0);
    EXPECT_EQ(second.filesUnchanged, 34);
    EXPECT_EQ(second.tokens, 0);
    EXPECT_EQ(second.newSessions + second.updatedSessions, 0);
    EXPECT_EQ(storeFiles(tree), before);
}

TEST(LogScan, TheCaptureModeDecidesWhatTextIsKept) {
    const LogTree tree;
    tree.scan();
    const QuotaSessionCatalogStore catalog{tree.configuration};
    const std::string session = "0992eb9e-6652-4513-a72c-3e3af4e31bdc";
    // metadataOnly: the descriptor counts the session, but no message is kept in either store
    // beyond the prompts (without text) that the counts need.
    EXPECT_TRUE(catalog.loadPersistedMessageRows("test-machine", session).empty());
    const auto descriptor = *catalog.loadDescriptor("test-machine", session);
    EXPECT_EQ(descriptor.title, "api.server");  // the project folder
    EXPECT_GT(descriptor.promptCount, 0);
    EXPECT_GT(descriptor.messageCount, descriptor.promptCount);
    testing::RawDatabase registry{*tree.configuration.appGroupDirectory / "quota-session-file-registry.sqlite"};
    EXPECT_EQ(registry.column("SELECT COUNT(*) FROM import_messages WHERE is_prompt = 0 OR text IS NOT NULL"),
              std::vector<std::string>{"0"});

    EXPECT_EQ(tree.scan(QuotaSessionContentCaptureMode::promptsOnly).tokens, 0);  // read again, counted once
    const auto prompts = catalog.loadPersistedMessageRows("test-machine", session);
    bool sawPromptText = false;
    for (const auto& row : prompts) {
        if (row.role == "assistant") {
            EXPECT_FALSE(row.text);
        }
        sawPromptText = sawPromptText || (row.role == "user" && row.text);
    }
    EXPECT_TRUE(sawPromptText);
    const auto title = catalog.loadDescriptor("test-machine", session)->title;
    EXPECT_NE(title, "api.server");
    EXPECT_LE(title.size(), 80u * 4);
}

// The progress a scan reports: every file, and the bytes left to read are what the changed files
// added (the time left is reckoned from them).
TEST(LogScan, ProgressCountsTheBytesTheChangedFilesAdded) {
    const LogTree tree;
    const auto lastProgress = [&] {
        QuotaScanProgress last;
        auto options = tree.options();
        options.progress = [&](const QuotaScanProgress& p) { last = p; };
        const auto summary = QuotaLogScanner{tree.configuration}.scan(options);
        EXPECT_EQ(last.bytesRead, summary.bytesRead);
        return last;
    };
    const auto cold = lastProgress();
    EXPECT_EQ(cold.filesDone, 34);
    EXPECT_EQ(cold.filesTotal, 34);
    EXPECT_EQ(cold.bytesToRead, cold.bytesRead);
    EXPECT_GT(cold.bytesRead, 100000);

    const auto claude = tree.home("claude") / "projects/-home-dev-notes/2d139d10-5838-44e8-8895-f0cc1ba2f736.jsonl";
    const std::string line = testing::readFile(claude).substr(0, testing::readFile(claude).find('\n') + 1);
    std::ofstream(claude, std::ios::app) << line;
    const auto appended = lastProgress();
    EXPECT_EQ(appended.bytesToRead, std::int64_t(line.size()));
    EXPECT_EQ(appended.bytesRead, std::int64_t(line.size()));
}

// A file written a line (and half a line) at a time and scanned after every write ends with the
// rows of one whole import.
TEST(LogScan, AnImportSplitAtEveryLineGivesTheSameRowsAsOneImport) {
    const LogTree whole;
    const LogTree split;
    const auto codex = fs::path("sessions/2026/10/30/rollout-2026-10-30T14-12-00-87fe333b-c70d-4512-9ed4-822bce506f4f.jsonl");
    const auto claude = fs::path("projects/-home-dev-src-gaugepoint/3d463448-a609-4bba-83a8-7cab1168cb85.jsonl");
    for (const auto& [tool, file] : {std::pair{"codex", codex}, std::pair{"claude", claude}}) {
        const std::string content = testing::readFile(split.home(tool) / file);
        testing::writeFile(split.home(tool) / file, "");
        std::size_t written = 0;
        while (written < content.size()) {
            const std::size_t lineEnd = std::min(content.find('\n', written), content.size() - 1) + 1;
            const std::size_t half = written + (lineEnd - written) / 2;
            for (const std::size_t upTo : {half, lineEnd}) {
                std::ofstream(split.home(tool) / file, std::ios::app) << content.substr(written, upTo - written);
                written = upTo;
                split.scan();
            }
        }
    }
    whole.scan();
    EXPECT_EQ(split.usage().countedEntries(), whole.usage().countedEntries());
    const QuotaSessionCatalogStore a{whole.configuration}, b{split.configuration};
    EXPECT_EQ(a.loadAllDescriptors(), b.loadAllDescriptors());
    for (const auto& d : a.loadAllDescriptors()) {
        const auto rows = [](const QuotaSessionCatalogStore& s, const std::string& id) {
            std::vector<std::tuple<std::string, std::optional<double>, std::optional<std::string>, std::int64_t>> list;
            for (const auto& r : s.loadPersistedMessageRows("test-machine", id)) list.emplace_back(r.role, r.timestamp, r.model, r.tokenCount);
            return list;
        };
        EXPECT_EQ(rows(a, d.id), rows(b, d.id)) << d.id;
    }
}

// A file cut short, a file replaced by another, and new reading rules: what they gave before is
// replaced, never added to.
TEST(LogScan, ShrunkReplacedAndReparsedFilesReplaceWhatTheyGave) {
    const LogTree tree, fresh;
    tree.scan();
    const auto shorten = [](const fs::path& file, std::size_t lines) {
        const std::string content = testing::readFile(file);
        std::size_t end = 0;
        for (std::size_t i = 0; i < lines; ++i) end = content.find('\n', end) + 1;
        return content.substr(0, end);
    };
    const auto claude = fs::path("projects/-home-dev-notes/2d139d10-5838-44e8-8895-f0cc1ba2f736.jsonl");
    const auto codex = fs::path("sessions/2026/11/05/rollout-2026-11-05T10-30-00-07dfecf1-5ac6-4033-bfb9-ffe02e54ea17.jsonl");
    for (const LogTree* t : {&tree, &fresh}) {
        testing::writeFile(t->home("claude") / claude, shorten(t->home("claude") / claude, 6));  // in place
        const auto target = t->home("codex") / codex;
        testing::writeFile(target.string() + ".new", shorten(target, 40));
        fs::rename(target.string() + ".new", target);  // another file under the same name
    }
    const auto rescan = tree.scan();
    EXPECT_EQ(rescan.filesRead, 2);
    EXPECT_LT(rescan.tokens, 0);
    fresh.scan();
    EXPECT_EQ(tree.usage().countedEntries(), fresh.usage().countedEntries());

    // New reading rules: every file is read again (here: entries claiming an older parser).
    testing::RawDatabase{*tree.configuration.appGroupDirectory / "quota-session-file-registry.sqlite"}.exec(
        "UPDATE session_file_registry SET parser_version = 0");
    const auto reparsed = tree.scan();
    EXPECT_EQ(reparsed.filesRead, 34);
    EXPECT_EQ(reparsed.tokens, 0);
    EXPECT_EQ(tree.usage().countedEntries(), fresh.usage().countedEntries());
}

// One response in two files: the copy with the most output counts, once; when that copy's file
// loses it, the other copy counts.
TEST(LogScan, AResponseInSeveralFilesIsCountedOnceByItsLargestCopy) {
    const LogTree tree;
    const auto line = [](const char* session, const char* uuid, int output) {
        return std::string(R"({"type":"assistant","sessionId":")") + session + R"(","uuid":")" + uuid +
               R"(","requestId":"req_1","timestamp":"2026-11-20T10:00:00.000Z","message":{"id":"msg_1","role":"assistant",)"
               R"("model":"claude-sonnet-4-5-20250929","usage":{"input_tokens":5,"output_tokens":)" + std::to_string(output) + "}}}\n";
    };
    const auto dir = tree.home("claude") / "projects" / "-tmp-dedup";
    fs::create_directories(dir);
    testing::writeFile(dir / "a.jsonl", line("s1", "u1", 10));
    testing::writeFile(dir / "b.jsonl", line("s1", "u2", 30) + line("s1", "u3", 20));
    tree.scan();
    const auto entries = [&] {
        auto all = tree.usage().countedEntries("claude");
        std::erase_if(all, [](const auto& e) { return e.sessionID != "s1"; });
        return all;
    };
    ASSERT_EQ(entries().size(), 1u);
    EXPECT_EQ(entries()[0].tokens.outputTokens, 30);
    testing::writeFile(dir / "b.jsonl", "");
    EXPECT_EQ(tree.scan().tokens, -20);  // 5 + 30 counted before, 5 + 10 now
    ASSERT_EQ(entries().size(), 1u);
    EXPECT_EQ(entries()[0].tokens.outputTokens, 10);
}

// Claude Code's workflow subagents write one level deeper than other subagents; their usage
// belongs to the parent session their lines name.
TEST(LogScan, ClaudeWorkflowSubagentsCountTowardTheirParentSession) {
    const LogTree tree;
    const auto dir = tree.home("claude") / "projects" / "-home-dev-wf" / "parent-1" / "subagents" / "workflows" / "review";
    fs::create_directories(dir);
    testing::writeFile(dir / "agent-a1.jsonl",
                       R"({"type":"assistant","sessionId":"parent-1","isSidechain":true,"agentId":"a1","cwd":"/home/dev/wf",)"
                       R"("uuid":"w1","requestId":"req_w1","timestamp":"2026-11-20T10:00:00.000Z","message":{"id":"msg_w1",)"
                       R"("role":"assistant","model":"claude-sonnet-4-5","usage":{"input_tokens":5,"output_tokens":7}}})" "\n");
    tree.scan();
    std::int64_t tokens = 0;
    for (const auto& e : tree.usage().countedEntries("claude")) tokens += e.sessionID == "parent-1" ? e.tokens.totalTokens() : 0;
    EXPECT_EQ(tokens, 12);
}

// Gemini CLI's current form beside the older one: one session written by both generations counts
// once, a subagent chat under chats/<parent>/ is a session of its own, and the project's path
// comes from .project_root.
TEST(LogScan, BothGenerationsOfAGeminiChatCountOnce) {
    const LogTree tree;
    const auto project = tree.home("gemini") / "tmp" / "proj";
    fs::create_directories(project / "chats" / "g6");
    testing::writeFile(project / ".project_root", "/home/dev/src/proj\n");
    const auto reply = [](const char* id, int input) {
        return std::string(R"({"id":")") + id + R"(","timestamp":"2026-11-20T10:00:00Z","type":"gemini","model":"gemini-2.5-pro",)"
               R"("tokens":{"input":)" + std::to_string(input) + R"(,"output":10}})";
    };
    testing::writeFile(project / "chats" / "session-2026-11-20T10-00-g6.json",
                       R"({"sessionId":"g6","messages":[)" + reply("a1", 100) + "," + reply("a2", 200) + "]}");
    testing::writeFile(project / "chats" / "session-2026-11-20T10-00-g6.jsonl",
                       R"({"sessionId":"g6","projectHash":"x","startTime":"2026-11-20T10:00:00Z","kind":"main"})" "\n" +
                           reply("a1", 100) + "\n" + reply("a2", 200) + "\n" + reply("a3", 300) + "\n");
    testing::writeFile(project / "chats" / "g6" / "sub-1.jsonl",
                       R"({"sessionId":"sub-1","projectHash":"x","startTime":"2026-11-20T10:00:00Z","kind":"subagent"})" "\n" +
                           reply("s1", 1000) + "\n");
    testing::writeFile(project / "chats" / "session-2026-11-20T10-00-g6.json.tmp-4242", "{");  // a writer's temporary file
    const auto summary = tree.scan();
    EXPECT_EQ(summary.filesSkipped, 0);
    std::map<std::string, std::int64_t> tokens;
    for (const auto& e : tree.usage().countedEntries("gemini")) tokens[e.sessionID] += e.tokens.totalTokens();
    EXPECT_EQ(tokens["g6"], 110 + 210 + 310);
    EXPECT_EQ(tokens["sub-1"], 1010);
    const QuotaSessionCatalogStore catalog{tree.configuration};
    EXPECT_EQ(catalog.loadDescriptor("test-machine", "g6")->projectPath, "/home/dev/src/proj");
    EXPECT_EQ(catalog.loadDescriptor("test-machine", "sub-1")->projectPath, "/home/dev/src/proj");
}

}  // namespace
}  // namespace gaugepoint
