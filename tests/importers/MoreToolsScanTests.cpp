// The sample homes of OpenCode, Copilot CLI, Qwen Code, Amp, Goose, Kimi and pi against the figures their
// generator worked out, and the faults of tools that keep a database or rewrite their rows.

#include <gtest/gtest.h>

#include <fstream>

#include "ImporterTestSupport.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint {
namespace {

using testing::LogTree;
namespace fs = std::filesystem;

const std::vector<std::string> kMoreTools{"opencode", "copilot", "qwen", "amp", "goose", "kimi", "pi"};

std::map<std::string, testing::DayTotals> expectedDays(const char* provider, const char* zone) {
    std::map<std::string, testing::DayTotals> days;
    const auto document = testing::expectedDocument("expected-daily-more.json");
    for (const auto& row : document.at("daily").at(provider).at(zone).as_array()) {
        testing::DayTotals day{row.at("inputTokens").as_int64(), row.at("outputTokens").as_int64(),
                               row.at("cacheCreationTokens").as_int64(), row.at("cacheReadTokens").as_int64(), {}};
        for (const auto& model : row.at("modelsUsed").as_array()) day.models.insert(std::string(model.as_string()));
        days[std::string(row.at("date").as_string())] = day;
    }
    return days;
}

// This machine's time in ms, as OpenCode stamps its writes.
const std::string kNowMs = "CAST(strftime('%s', 'now') AS INTEGER) * 1000";

std::int64_t tokensOf(const LogTree& tree, const std::string& provider) {
    std::int64_t tokens = 0;
    for (const auto& e : tree.usage().countedEntries(provider)) tokens += e.tokens.totalTokens();
    return tokens;
}

TEST(MoreToolsScan, EachSampleGivesItsExpectedDaysOnceWithItsSessions) {
    const LogTree tree{kMoreTools};
    const auto first = tree.scan();
    // The damaged records: an OpenCode row, a Copilot, a Qwen, a Kimi and a pi line; Amp's
    // cut-short thread is a file skipped (and read again when it changes).
    EXPECT_EQ(first.linesSkipped, 5);
    EXPECT_EQ(first.filesSkipped, 1);
    const auto usage = tree.usage();
    for (const char* zone : {"UTC", "America/New_York"}) {
        const auto calendar = *LocalCalendar::inTimeZone(zone);
        for (const auto& provider : kMoreTools) {
            EXPECT_EQ(testing::dailyTotals(usage, provider, calendar), expectedDays(provider.c_str(), zone)) << provider << " " << zone;
        }
    }
    const QuotaSessionCatalogStore catalog{tree.configuration};
    const auto opencode = catalog.loadDescriptor("test-machine", "ses_a");
    ASSERT_TRUE(opencode);
    EXPECT_EQ(opencode->provider.id, "opencode");
    EXPECT_EQ(opencode->projectPath, "/home/dev/src/api");
    const auto copilot = catalog.loadDescriptor("test-machine", "7e2d9a40-2222-4c1b-8d3e-5f6a7b8c9d0e");
    ASSERT_TRUE(copilot);
    EXPECT_EQ(copilot->projectPath, "/home/dev/src/web");
    ASSERT_TRUE(catalog.loadDescriptor("test-machine", "20261030_1"));
    EXPECT_EQ(catalog.loadDescriptor("test-machine", "20261030_1")->projectPath, "/home/dev/src/20261030_1");

    // Dollars a tool recorded are kept as they stand; Amp's credits and Copilot's premium
    // requests are no dollars.
    const auto recordedCost = [&](const char* provider) {
        std::optional<double> sum;
        for (const auto& e : usage.countedEntries(provider)) {
            if (e.tokens.exactCostUSD) sum = sum.value_or(0) + *e.tokens.exactCostUSD;
        }
        return sum;
    };
    EXPECT_NEAR(recordedCost("pi").value_or(0), 0.0123 + 0.0061 + 0.0085, 1e-9);
    EXPECT_NEAR(recordedCost("opencode").value_or(0), 0.01 + 0.01 + 0.02 + 0.005, 1e-9);
    EXPECT_EQ(recordedCost("amp"), std::nullopt);
    EXPECT_EQ(recordedCost("copilot"), std::nullopt);

    const auto second = tree.scan();
    EXPECT_EQ(second.filesRead, 0);
    EXPECT_EQ(second.tokens, 0);
    EXPECT_EQ(second.newSessions + second.updatedSessions, 0);
}

// OpenCode overwrites a message's tokens as its steps finish and Goose its session's running
// totals: each counts once, with its final values, however often the rows change between scans.
TEST(MoreToolsScan, RowsUpdatedInPlaceCountOnceWithTheirFinalValues) {
    const LogTree tree{kMoreTools};
    tree.scan();
    const std::int64_t opencode = tokensOf(tree, "opencode"), goose = tokensOf(tree, "goose");
    {
        testing::RawDatabase db{tree.home("opencode") / "opencode.db"};
        // The running message finishes (OpenCode stamps the write): 1,000 tokens more than its zero row.
        ASSERT_EQ(db.exec(R"(UPDATE message SET time_updated = )" + kNowMs + R"(, data = json_set(data, '$.tokens.input', 400,
                             '$.tokens.output', 600) WHERE id = 'msg_b4')"), "");
        // A finished one is rewritten with the same numbers (its cost grows): nothing changes.
        ASSERT_EQ(db.exec("UPDATE message SET data = json_set(data, '$.cost', 1.5) WHERE id = 'msg_b2'"), "");
    }
    {
        testing::RawDatabase db{tree.home("goose") / "sessions" / "sessions.db"};
        ASSERT_EQ(db.exec("UPDATE sessions SET accumulated_input_tokens = accumulated_input_tokens + 700,"
                          " accumulated_total_tokens = accumulated_total_tokens + 700, updated_at = datetime('now')"
                          " WHERE id = '20261101_1'"), "");
    }
    for (int scan = 0; scan < 2; ++scan) tree.scan();
    EXPECT_EQ(tokensOf(tree, "opencode"), opencode + 1000);
    EXPECT_EQ(tokensOf(tree, "goose"), goose + 700);
}

// A scan reads a tool's database from the marks the last one left: the rows added or stamped as
// updated since, each replacing what it gave (so a change the tool did not stamp is not even
// read). A database replaced by another file, or one that lost rows, is read whole again.
TEST(MoreToolsScan, ADatabaseIsReadFromItsMarksAndWholeOnceReplacedOrShrunk) {
    const LogTree tree{kMoreTools};
    tree.scan();
    const std::int64_t opencode = tokensOf(tree, "opencode");
    const auto path = tree.home("opencode") / "opencode.db";
    const auto write = [&](const std::string& sql) {
        testing::RawDatabase db{path};
        ASSERT_EQ(db.exec(sql), "");
    };
    write("UPDATE message SET data = json_set(data, '$.tokens.input', 5000 + json_extract(data, '$.tokens.input'))"
          " WHERE id = 'msg_a2'");
    write("INSERT INTO message VALUES ('msg_n1', 'ses_b', 1793509200000, " + kNowMs +
          R"(, '{"role":"assistant","modelID":"gpt-5","time":{"created":1793509200000},"tokens":{"input":50,"output":50}}'))");
    EXPECT_EQ(tree.scan().tokens, 100);
    // The response goes on: two steps, its row rewritten with the last one's tokens.
    write("INSERT INTO part VALUES ('prt_n1', 'msg_n1', 'ses_b', 1793509201000, " + kNowMs +
          R"(, '{"type":"step-finish","tokens":{"input":300,"output":200}}'),)"
          "('prt_n2', 'msg_n1', 'ses_b', 1793509202000, " + kNowMs +
          R"(, '{"type":"step-finish","tokens":{"input":30,"output":20}}'))");
    write("UPDATE message SET time_updated = " + kNowMs +
          ", data = json_set(data, '$.tokens.input', 30, '$.tokens.output', 20) WHERE id = 'msg_n1'");
    for (int scan = 0; scan < 2; ++scan) tree.scan();
    EXPECT_EQ(tokensOf(tree, "opencode"), opencode + 550);

    fs::copy_file(path, path.string() + ".new");
    fs::rename(path.string() + ".new", path);
    tree.scan();
    EXPECT_EQ(tokensOf(tree, "opencode"), opencode + 550 + 5000);
    write("DELETE FROM part WHERE message_id = 'msg_n1'; DELETE FROM message WHERE id = 'msg_n1'");
    tree.scan();
    EXPECT_EQ(tokensOf(tree, "opencode"), opencode + 5000);
    EXPECT_EQ(tree.scan().filesRead, 0);
}

// The titles the tools keep name their sessions, renames included, as one bounded line; a tool
// that keeps none gives the derived title (here the project folder: no prompt text is kept).
TEST(MoreToolsScan, SessionsTakeTheTitlesTheirToolsKeepAndTheirRenames) {
    const LogTree tree{kMoreTools};
    tree.scan();
    const QuotaSessionCatalogStore catalog{tree.configuration};
    const auto title = [&](const char* id) {
        const auto descriptor = catalog.loadDescriptor("test-machine", id);
        return descriptor ? descriptor->title : "(no session)";
    };
    const char* thread = "T-5a1c0f7e-0001-4b2c-9d8e-7f6a5b4c3d2e";
    EXPECT_EQ(title("ses_a"), "Fix the login");
    EXPECT_EQ(title("20261030_1"), "Tidy the build");
    EXPECT_EQ(title(thread), "Refactor auth");
    EXPECT_EQ(title("pi-s1"), "api");

    {
        testing::RawDatabase db{tree.home("opencode") / "opencode.db"};
        ASSERT_EQ(db.exec("UPDATE session SET title = 'Fix the login' || char(9) || 'for good' || char(10) || 'at last',"
                          " time_updated = " + kNowMs + " WHERE id = 'ses_a'"), "");
    }
    const auto threadFile = tree.home("amp") / "threads" / (std::string(thread) + ".json");
    std::string content = testing::readFile(threadFile);
    content.replace(content.find("Refactor auth"), 13, std::string(300, 'x'));
    testing::writeFile(threadFile, content);
    const auto renamed = tree.scan();
    EXPECT_EQ(renamed.updatedSessions, 2);
    EXPECT_EQ(title("ses_a"), "Fix the login for good at last");
    EXPECT_EQ(title(thread), std::string(119, 'x') + "…");

    // Gemini's summary, patched into a chat's header as it goes on.
    const LogTree gemini{{"gemini"}};
    const auto chat = gemini.home("gemini") / "tmp" / "p" / "chats" / "session-2026-11-20T10-00-titled.jsonl";
    fs::create_directories(chat.parent_path());
    const auto summary = [](const char* text) { return std::string(R"({"$set":{"summary":")") + text + "\"}}\n"; };
    testing::writeFile(chat, R"({"sessionId":"titled","projectHash":"x","startTime":"2026-11-20T10:00:00Z"})"
                             "\n" R"({"id":"m1","timestamp":"2026-11-20T10:00:01Z","type":"gemini","model":"gemini-2.5-pro",)"
                             R"("tokens":{"input":10,"output":5,"cached":0,"thoughts":0,"tool":0,"total":15}})"
                             "\n" + summary("Draft the notes"));
    gemini.scan();
    const QuotaSessionCatalogStore geminiCatalog{gemini.configuration};
    ASSERT_TRUE(geminiCatalog.loadDescriptor("test-machine", "titled"));
    EXPECT_EQ(geminiCatalog.loadDescriptor("test-machine", "titled")->title, "Draft the notes");
    std::ofstream(chat, std::ios::app) << summary("Final notes");
    gemini.scan();
    EXPECT_EQ(geminiCatalog.loadDescriptor("test-machine", "titled")->title, "Final notes");
}

// A writer in the middle of a transaction (WAL, as the tools run) neither blocks the scan nor
// makes it fail; the scan sees the last commit, and the next one the writer's commit.
TEST(MoreToolsScan, ADatabaseHeldOpenByAWriterIsReadWithoutError) {
    const LogTree tree{kMoreTools};
    const auto db = tree.home("opencode") / "opencode.db";
    testing::RawDatabase writer{db};
    ASSERT_EQ(writer.exec("PRAGMA journal_mode = WAL"), "");
    ASSERT_EQ(writer.exec(R"(BEGIN IMMEDIATE;
        INSERT INTO message VALUES ('msg_c1', 'ses_b', 1793509200000, 1793509200000,
          '{"role":"assistant","modelID":"gpt-5","time":{"created":1793509200000},"tokens":{"input":50,"output":50}}'))"), "");
    const auto during = tree.scan();
    EXPECT_EQ(during.filesSkipped, 1);  // Amp's cut-short thread, as always
    const std::int64_t before = tokensOf(tree, "opencode");
    EXPECT_GT(before, 0);
    ASSERT_EQ(writer.exec("COMMIT"), "");
    EXPECT_EQ(tree.scan().filesRead, 1);  // the write-ahead log changed
    EXPECT_EQ(tokensOf(tree, "opencode"), before + 100);
    EXPECT_EQ(tree.scan().filesRead, 0);
}

// Copilot's running totals and Qwen's records written a line (and half a line) at a time, with a
// scan after every write, give the rows of one whole import.
TEST(MoreToolsScan, AppendedFilesSplitAtEveryLineGiveTheSameRowsAsOneImport) {
    const LogTree whole{kMoreTools}, split{kMoreTools};
    for (const auto& [tool, file] :
         {std::pair{"copilot", fs::path("session-state/0b7c1f6e-1111-4a57-9f3e-0a1b2c3d4e5f/events.jsonl")},
          std::pair{"qwen", fs::path("projects/-home-dev-beta/chats/qb.jsonl")}}) {
        const std::string content = testing::readFile(split.home(tool) / file);
        testing::writeFile(split.home(tool) / file, "");
        std::size_t written = 0;
        while (written < content.size()) {
            const std::size_t lineEnd = std::min(content.find('\n', written), content.size() - 1) + 1;
            for (const std::size_t upTo : {written + (lineEnd - written) / 2, lineEnd}) {
                std::ofstream(split.home(tool) / file, std::ios::app) << content.substr(written, upTo - written);
                written = upTo;
                split.scan();
            }
        }
    }
    whole.scan();
    for (const auto& provider : {"copilot", "qwen"}) {
        EXPECT_EQ(split.usage().countedEntries(provider), whole.usage().countedEntries(provider)) << provider;
    }
}

// Amp rewrites a thread whole: a thread caught mid-write keeps what it gave before.
TEST(MoreToolsScan, AThreadCaughtMidWriteKeepsItsUsage) {
    const LogTree tree{kMoreTools};
    tree.scan();
    const std::int64_t before = tokensOf(tree, "amp");
    const auto thread = tree.home("amp") / "threads" / "T-9b8a7c6d-0002-4e5f-8a9b-0c1d2e3f4a5b.json";
    const std::string content = testing::readFile(thread);
    testing::writeFile(thread, content.substr(0, content.size() / 2));
    EXPECT_EQ(tree.scan().filesSkipped, 2);
    EXPECT_EQ(tokensOf(tree, "amp"), before);
    testing::writeFile(thread, content);
    tree.scan();
    EXPECT_EQ(tokensOf(tree, "amp"), before);
}

}  // namespace
}  // namespace gaugepoint
