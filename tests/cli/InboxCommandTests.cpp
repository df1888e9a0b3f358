#include <gtest/gtest.h>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::CommandResult;
using testing::ScratchDirectory;

CommandResult run(const ScratchDirectory& dir, std::vector<std::string> args, const std::string& input = {}) {
    args.insert(args.end(), {"--app-group-dir", (dir / "group").string(), "--now", "2026-11-21T12:00:00Z"});
    return testing::gaugepoint(args, input);
}

// `count` entries of one thread, all created at the same second but one.
std::string entriesDocument(int count) {
    std::string text = "[";
    for (int i = 0; i < count; ++i) {
        text += std::string(i ? "," : "") + R"({"envelopeID":"e)" + std::to_string(i) +
                R"(","threadID":"t","origin":"local","title":"Claude at )" + std::to_string(i) + R"(%","createdAt":")" +
                (i == 0 ? "2026-11-21T08:00:00Z" : "2026-11-21T11:30:00.123456Z") +
                R"(","archivedAt":"2026-11-21T11:30:00Z","category":"quota"})";
    }
    return text + "]";
}

TEST(InboxCommand, AddsPagesByCursorAndDeletes) {
    ScratchDirectory dir;
    EXPECT_EQ(run(dir, {"inbox", "add", "-"}, entriesDocument(7)).out, "stored 7 entries\n");
    EXPECT_EQ(run(dir, {"inbox", "count"}).out, "7 entries\n");
    EXPECT_EQ(run(dir, {"inbox", "list", "--limit", "2"}).out,
              "2026-11-21T11:30:00.123456Z  e6  quota  Claude at 6%\n"
              "2026-11-21T11:30:00.123456Z  e5  quota  Claude at 5%\n"
              "2 entries; next page: --before 1795260600.123456,e5\n");

    std::vector<std::string> seen;
    std::string cursor;
    for (int pages = 0; pages < 10; ++pages) {
        std::vector<std::string> args{"inbox", "list", "--limit", "3", "--json"};
        if (!cursor.empty()) args.insert(args.end(), {"--before", cursor});
        const auto page = json::parse(run(dir, args).out);
        for (const auto& e : page.at("entries").as_array()) seen.emplace_back(e.at("envelopeID").as_string());
        if (page.at("nextCursor").is_null()) break;
        cursor = std::string(page.at("nextCursor").as_string());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"e6", "e5", "e4", "e3", "e2", "e1", "e0"}));

    EXPECT_EQ(run(dir, {"inbox", "delete", "e6", "missing"}).out, "1 entry removed\n");
    EXPECT_EQ(run(dir, {"inbox", "trim", "--older-than", "3600"}).out, "1 entry removed\n");
    EXPECT_EQ(run(dir, {"inbox", "delete", "--thread", "t", "--grouping", "group"}).out, "0 entries removed\n");
    EXPECT_EQ(run(dir, {"inbox", "delete", "--thread", "t", "--json"}).out, "{\"removed\":5}\n");
    EXPECT_EQ(run(dir, {"inbox", "add", "-"}, entriesDocument(2)).exitCode, 0);
    EXPECT_EQ(run(dir, {"inbox", "delete", "--category", "quota"}).out, "2 entries removed\n");
    EXPECT_EQ(run(dir, {"inbox", "clear"}).out, "0 entries removed\n");
    EXPECT_EQ(run(dir, {"inbox", "list", "--json"}).out, "{\n  \"entries\": [],\n  \"nextCursor\": null\n}\n");
}

TEST(InboxCommand, BadInputFailsWithOneLineAndWritesNothing) {
    ScratchDirectory dir;
    std::string broken = entriesDocument(3);
    broken.insert(broken.size() - 1, R"(,{"envelopeID":"x"})");
    const auto bad = run(dir, {"inbox", "add", "-"}, broken);
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.err, "gaugepoint: cannot decode standard input: [3].threadID: required key is missing\n");
    EXPECT_EQ(run(dir, {"inbox", "count", "--json"}).out, "{\"count\":0}\n");
    EXPECT_EQ(run(dir, {"inbox", "delete"}).exitCode, 2);
    EXPECT_EQ(run(dir, {"inbox", "delete", "e1", "--category", "quota"}).exitCode, 2);
    EXPECT_EQ(run(dir, {"inbox", "list", "--before", "yesterday"}).exitCode, 2);

    const std::string junk(4096, 'x');
    testing::writeFile(dir / "group" / "quota-notify-inbox.sqlite", junk);
    const auto hostile = run(dir, {"inbox", "list"});
    EXPECT_EQ(hostile.exitCode, 1);
    EXPECT_EQ(hostile.err, "gaugepoint: set journal mode: file is not a database\n");
    EXPECT_EQ(testing::readFile(dir / "group" / "quota-notify-inbox.sqlite"), junk);
}

}  // namespace
}  // namespace gaugepoint
