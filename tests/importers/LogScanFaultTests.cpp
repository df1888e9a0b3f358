#include <gtest/gtest.h>

#include <signal.h>

#include <fstream>
#include <thread>

#include "ImporterTestSupport.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint {
namespace {

using testing::LogTree;
namespace fs = std::filesystem;

TEST(LogScanFaults, BadLinesAndFilesAreSkippedCountedAndTheRestImported) {
    const LogTree tree;
    const auto dir = tree.home("claude") / "projects" / "-tmp-bad";
    fs::create_directories(dir);
    const auto good = [](const char* uuid, const std::string& usage) {
        return std::string(R"({"type":"assistant","sessionId":"bad-lines","uuid":")") + uuid +
               R"(","timestamp":"2026-11-20T10:00:00.000Z","message":{"role":"assistant","model":"m","usage":)" + usage + "}}\n";
    };
    std::string content = good("u1", R"({"input_tokens":1,"output_tokens":2})");
    content += "{\"type\":\"assistant\",\"sessionId\":\n";                                  // cut short
    content += good("u2", R"({"input_tokens":"7","output_tokens":2})");                     // a wrong type
    content += good("u3", R"({"input_tokens":-7,"output_tokens":2})");                      // negative
    content += good("u4", R"({"input_tokens":1e15,"output_tokens":2})");                    // absurd
    content += good("u5", R"({"input_tokens":1.5,"output_tokens":2})");                     // a fraction
    content += "[1,2,3]\n";
    content += "{\"type\":\"assistant\",\"message\":\"" + std::string(40u << 20, 'x') + "\"}\n";  // 40 MB
    content += good("u6", R"({"input_tokens":3,"output_tokens":4})");
    testing::writeFile(dir / "bad.jsonl", content);
    fs::create_directory_symlink("..", dir / "loop");  // a directory loop
    fs::create_directories(tree.home("gemini") / "tmp" / "p" / "chats");
    testing::writeFile(tree.home("gemini") / "tmp" / "p" / "chats" / "session-x.json", "{\"sessionId\":\"g\",\"messages\":[{");

    const auto summary = tree.scan();
    EXPECT_EQ(summary.linesSkipped, 2 + 7);  // the sample's own two, these seven
    EXPECT_EQ(summary.filesSkipped, 1);      // the chat document cut short
    std::int64_t tokens = 0;
    for (const auto& e : tree.usage().countedEntries("claude")) {
        if (e.sessionID == "bad-lines") tokens += e.tokens.totalTokens();
    }
    EXPECT_EQ(tokens, 3 + 7);
    std::set<std::string> reasons;
    for (const auto& p : summary.problems) {
        if (p.path.find("bad.jsonl") != std::string::npos) reasons.insert(p.reason);
    }
    EXPECT_TRUE(reasons.contains("a line longer than 32 MiB"));
    EXPECT_TRUE(reasons.contains("a token count that is negative, fractional or absurd"));
    EXPECT_EQ(tree.scan().linesSkipped, 0);  // skipped lines are not read again
}

// A chat document caught mid-write keeps what its session counted, and a message with an invalid
// count is skipped (and counted as skipped) while the rest of the document counts.
TEST(LogScanFaults, AHalfWrittenOrPartlyInvalidChatDocumentKeepsTheSessionsUsage) {
    const LogTree tree;
    const auto chat = tree.home("gemini") / "tmp" / "p" / "chats" / "session-2026-11-20T10-00-half.json";
    fs::create_directories(chat.parent_path());
    const auto message = [](const char* id, const char* input) {
        return std::string(R"({"id":")") + id + R"(","timestamp":"2026-11-20T10:00:00Z","type":"gemini","model":"gemini-2.5-pro",)"
               R"("tokens":{"input":)" + input + R"(,"output":10,"cached":0,"thoughts":0,"tool":0}})";
    };
    const auto document = [&](const std::string& messages) { return R"({"sessionId":"half","messages":[)" + messages + "]}"; };
    const auto sessionTokens = [&] {
        std::int64_t tokens = 0;
        for (const auto& e : tree.usage().countedEntries("gemini")) tokens += e.sessionID == "half" ? e.tokens.totalTokens() : 0;
        return tokens;
    };
    const std::string two = message("a1", "100") + "," + message("a2", "200");
    testing::writeFile(chat, document(two));
    tree.scan();
    ASSERT_EQ(sessionTokens(), 320);

    const std::string grown = document(two + "," + message("a3", "300"));
    testing::writeFile(chat, grown.substr(0, grown.size() - 40));  // caught mid-write
    const auto half = tree.scan();
    EXPECT_EQ(half.filesSkipped, 1);
    EXPECT_EQ(sessionTokens(), 320);

    testing::writeFile(chat, document(two + "," + message("a3", "-300") + "," + message("a4", "400")));
    const auto invalid = tree.scan();
    EXPECT_EQ(invalid.linesSkipped, 1);
    EXPECT_EQ(sessionTokens(), 320 + 410);
    EXPECT_EQ(tree.scan().filesRead, 0);
}

// Every index of the registry file with its SQL, as the file holds it now.
std::vector<std::string> registryIndexes(const testing::LogTree& tree) {
    testing::RawDatabase db{tree.configuration.appGroupDirectory.value() /
                            std::string(QuotaSessionFileRegistry::defaultFilename)};
    return db.column("SELECT name || ': ' || sql FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL ORDER BY name");
}

// A scan killed at any moment, then a full scan: every row once. Few large files are written a
// piece at a time, many small ones many to a transaction; both must lose and double nothing.
TEST(LogScanFaults, AScanKilledAtAnyMomentLosesAndDoublesNothing) {
    struct Shape {
        int files, events;
    };
    std::vector<std::string> indexes;  // as a registry that no scan wrote has them
    {
        const LogTree fresh;
        fresh.usage().countedEntries();
        indexes = registryIndexes(fresh);
    }
    for (const Shape shape : {Shape{40, 2000}, Shape{1500, 30}}) {
        const LogTree tree;
        // Each event adds 1,000 tokens.
        for (int f = 0; f < shape.files; ++f) {
            const auto dir = tree.home("codex") / "sessions" / "2026" / "11" / std::to_string(f % 50);
            fs::create_directories(dir);
            std::ofstream out(dir / ("rollout-" + std::to_string(f) + ".jsonl"));
            out << R"({"timestamp":"2026-11-01T00:00:00.000Z","type":"session_meta","payload":{"id":"crash-)" << f << "\"}}\n";
            for (int e = 1; e <= shape.events; ++e) {
                out << R"({"timestamp":"2026-11-01T00:00:01.000Z","type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":{"input_tokens":)"
                    << e * 900 << R"(,"cached_input_tokens":0,"output_tokens":)" << e * 100 << R"(,"total_tokens":)" << e * 1000 << "}}}}\n";
            }
        }
        for (const int delay : {5, 15, 40, 80, 150}) {
            const pid_t child = testing::inChildProcess([&] { return (tree.scan(), 0); });
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            ::kill(child, SIGKILL);
            testing::exitStatus(child);
        }
        // A first import puts off some indexes until its end; a killed one leaves them to the
        // next opening of the store.
        tree.usage().countedEntries();
        EXPECT_EQ(registryIndexes(tree), indexes);
        tree.scan();
        EXPECT_EQ(registryIndexes(tree), indexes);  // as the scan left them, before any other opening
        std::int64_t tokens = 0;
        for (const auto& e : tree.usage().countedEntries("codex")) {
            if (e.sessionID.starts_with("crash-")) tokens += e.tokens.totalTokens();
        }
        EXPECT_EQ(tokens, std::int64_t(shape.files) * shape.events * 1000) << shape.files << " files";
        // The catalogue has every session whole, whichever moment stopped its publishing.
        std::int64_t sessions = 0, published = 0;
        for (const auto& d : QuotaSessionCatalogStore{tree.configuration}.loadAllDescriptors()) {
            if (!d.id.starts_with("crash-")) continue;
            ++sessions;
            published += d.tokenUsage.totalTokens();
        }
        EXPECT_EQ(sessions, shape.files);
        EXPECT_EQ(published, tokens);
        EXPECT_EQ(tree.scan().filesRead, 0);
    }
}

// While a first import runs, the registry's secondary indexes and the usage indexes by time, file
// and session are missing and it holds the write lock for whole batches: a store opened meanwhile
// must neither wait for it nor fail (reads by time go without their index), and the next opening
// with nobody writing makes what an import stopped before its end left out.
TEST(LogScanFaults, OpeningDuringAFirstImportNeitherWaitsNorLeavesIndexesOut) {
    std::vector<std::string> indexes;  // as a registry that no scan wrote has them
    {
        const LogTree fresh;
        fresh.usage().countedEntries();
        indexes = registryIndexes(fresh);
    }
    // Every opening of the tree's store happens in a process of its own: a process keeps its
    // connection, and the set-up runs on opening.
    const LogTree tree;
    const auto open = [&] {
        return testing::exitStatus(testing::inChildProcess([&] {
            const auto since = dateFromSeconds(0);
            const auto usage = tree.usage();
            return (usage.countedEntries(), usage.countedEntries(std::nullopt, since), usage.usageBuckets(std::nullopt, since), 0);
        }));
    };
    ASSERT_EQ(open(), 0);
    {
        testing::RawDatabase writer{tree.configuration.appGroupDirectory.value() /
                                    std::string(QuotaSessionFileRegistry::defaultFilename)};
        ASSERT_EQ(writer.exec("DROP INDEX idx_ue_time; DROP INDEX idx_ue_file; DROP INDEX idx_ue_session; "
                              "DROP INDEX idx_im_session; DROP INDEX idx_session_file_registry_provider_updated_at; "
                              "DROP INDEX idx_session_file_registry_source_provider_updated_at; "
                              "DROP INDEX idx_session_file_registry_file_identifier; "
                              "DROP INDEX idx_session_file_registry_session_id; BEGIN IMMEDIATE"),
                  "");
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(open(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1500));
        writer.exec("COMMIT");
    }
    EXPECT_NE(registryIndexes(tree), indexes);
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(registryIndexes(tree), indexes);
}

TEST(LogScanFaults, TwoScansAtOnceCountNothingTwice) {
    const LogTree tree;
    const pid_t child = testing::inChildProcess([&] { return (tree.scan(), 0); });
    const auto mine = tree.scan();
    EXPECT_EQ(testing::exitStatus(child), 0);
    std::int64_t tokens = 0;
    for (const auto& e : tree.usage().countedEntries()) tokens += e.tokens.totalTokens();
    EXPECT_EQ(tokens, 2667716 + 432815 + 602820);
    EXPECT_TRUE(mine.tokens == 0 || mine.tokens == tokens);  // one of the two did the work
}

}  // namespace
}  // namespace gaugepoint
