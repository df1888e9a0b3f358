#include <gtest/gtest.h>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

class SessionStoreCommands : public ::testing::Test {
protected:
    testing::CommandResult run(std::vector<std::string> arguments, const std::string& input = {}) {
        arguments.insert(arguments.end(), {"--app-group-dir", directory.path().string(), "--now", "2026-11-21T12:00:00Z"});
        return gaugepoint(arguments, input);
    }
    testing::ScratchDirectory directory;
};

std::string descriptor(const std::string& source, const std::string& id, const std::string& title = "t") {
    return R"({"id":")" + id + R"(","sourceID":")" + source + R"(","sourceName":"M","provider":{"id":"claude","displayName":"Claude"},)"
           R"("title":")" + title + R"(","endedAt":"2026-11-20T10:00:00Z","messageCount":2,"promptCount":1,)"
           R"("tokenUsage":{"inputTokens":1000,"outputTokens":234}})";
}

TEST_F(SessionStoreCommands, ImportListShowAndExport) {
    EXPECT_EQ(run({"sessions", "import", "--source", "mac", "-"}, "[" + descriptor("mac", "a") + "," + descriptor("mac", "b") + "]").out,
              "imported 2 sessions of mac, 0 removed\n");
    const auto refused = run({"sessions", "import", "--source", "mac", "-"}, descriptor("linux", "c"));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "gaugepoint: standard input: session \"c\" belongs to source \"linux\", not \"mac\"\n");
    const auto catalog = R"({"version":1,"descriptors":[)" + descriptor("mac", "b", "kept") + R"(],"updatedAt":"2026-11-21T00:00:00Z"})";
    EXPECT_EQ(run({"sessions", "import", "--source", "mac", "-", "--json"}, catalog).out, "{\"imported\":1,\"removed\":1}\n");

    const auto list = run({"sessions", "list"});
    EXPECT_EQ(list.out,
              "Source  Session  Provider  Ended                Messages  Tokens  Title\n"
              "mac     b        claude    2026-11-20 10:00:00         2   1,234  kept\n"
              "1-1 of 1 session\n");
    EXPECT_EQ(json::parse(run({"sessions", "show", "--source", "mac", "b", "--json"}).out).at("title"), "kept");
    EXPECT_EQ(run({"sessions", "show", "--source", "mac", "a"}).err, "gaugepoint: no session \"a\" of source \"mac\"\n");

    EXPECT_EQ(run({"sessions", "replace-messages", "--source", "mac", "b", "-"},
                  R"([{"id":"1","role":"user","text":"hello"},{"id":"2","role":"robot"}])").err,
              "gaugepoint: cannot decode standard input: [1].role: unknown value \"robot\"\n");
    EXPECT_EQ(run({"sessions", "replace-messages", "--source", "mac", "b", "-"}, R"([{"id":"1","role":"user","text":"hello"}])").out,
              "stored 1 message\n");
    EXPECT_EQ(run({"sessions", "export", "--device", "laptop"}).out, "exported 1 session and 1 message to laptop\n");
    EXPECT_EQ(run({"sessions", "export", "--device", "laptop"}).out, "exported 0 sessions and 0 messages to laptop\n");
    EXPECT_NE(run({"sessions", "check"}).out.find("anomalies                   0\n"), std::string::npos);
    EXPECT_EQ(run({"sessions", "trim"}).exitCode, 2);
}

TEST_F(SessionStoreCommands, LedgerAndRegistry) {
    const std::string snapshot =
        R"({"version":1,"generatedAt":"2026-11-21T11:00:00Z","source":{"sourceID":"ws","sourceName":"W","hostName":"w","platformLabel":"Linux"},)"
        R"("providers":[{"id":"codex","displayName":"Codex","windows":[],"quotaStrategy":"multiWindow",)"
        R"("dailyTokenUsage":[{"dayKey":"2026-11-21","costUSD":1.1,"totalTokens":900000},{"dayKey":"2026-11-01","costUSD":2,"totalTokens":5}]}]})";
    EXPECT_EQ(run({"ledger", "record", "--snapshot", "-"}, snapshot).out, "2 rows recorded\n");
    EXPECT_EQ(run({"ledger", "summary", "--source", "ws", "--days", "7"}).out,
              "Day          Tokens   Cost\n2026-11-21  900,000  $1.10\n1 row\n");
    EXPECT_EQ(run({"ledger", "trim", "--older-than", "86400", "--json"}).out, "{\"removed\":1}\n");
    EXPECT_EQ(run({"ledger", "summary"}).out, "0 rows\n");  // this machine by default

    EXPECT_EQ(run({"registry", "list"}).out, "0 files\n");
    EXPECT_EQ(run({"registry", "remove", "--provider", "claude"}).out, "0 entries removed\n");
    EXPECT_EQ(run({"registry", "show", "/x", "--provider", "claude", "--mode", "metadataOnly"}).err,
              "gaugepoint: no registry entry for /x (claude, metadataOnly)\n");
    EXPECT_EQ(run({"registry", "list", "--mode", "everything"}).exitCode, 2);
    EXPECT_EQ(run({"registry", "checkpoints", "--json"}).out.rfind("{\n  \"version\": 1,", 0), 0u);
}

}  // namespace
}  // namespace gaugepoint
