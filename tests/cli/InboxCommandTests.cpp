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
              "2026-11-21 11:30:00  e6  quota  Claude at 6%\n"
              "2026-11-21 11:30:00  e5  quota  Claude at 5%\n"
              "2 entries; next page: --before 1795260600.123456,e5\n");

    const auto last = json::parse(run(dir, {"inbox", "list", "--limit", "3", "--json", "--before", "1795260600.123456,e3"}).out);
    EXPECT_EQ(last.at("entries").as_array().size(), 3u);  // e2, e1, e0: the last page
    EXPECT_TRUE(last.at("nextCursor").is_null());

    EXPECT_EQ(run(dir, {"inbox", "delete", "e6", "missing"}).out, "1 entry removed\n");
    EXPECT_EQ(run(dir, {"inbox", "trim", "--older-than", "3600"}).out, "1 entry removed\n");
    EXPECT_EQ(run(dir, {"inbox", "delete", "--thread", "t", "--grouping", "group"}).out, "0 entries removed\n");
    EXPECT_EQ(run(dir, {"inbox", "delete", "--category", "quota", "--json"}).out, "{\"removed\":5}\n");
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
    EXPECT_EQ(run(dir, {"inbox", "delete", "e1", "--category", "quota"}).exitCode, 2);
    EXPECT_EQ(run(dir, {"inbox", "list", "--before", "yesterday"}).exitCode, 2);
    std::string twice = entriesDocument(2);
    twice.replace(twice.find("\"e1\""), 4, "\"e0\"");
    const auto duplicate = run(dir, {"inbox", "add", "-"}, twice);
    EXPECT_EQ(duplicate.err, "gaugepoint: standard input: envelopeID \"e0\" is given twice ([0] and [1]); nothing was stored\n");
    std::string unnamed = entriesDocument(1);
    unnamed.replace(unnamed.find("\"e0\""), 4, "\" \"");
    EXPECT_EQ(run(dir, {"inbox", "add", "-"}, unnamed).err,
              "gaugepoint: standard input: [0].envelopeID is empty; every entry needs an id\n");
    EXPECT_EQ(run(dir, {"inbox", "count", "--json"}).out, "{\"count\":0}\n");
    testing::writeFile(dir / "group" / "quota-notify-inbox.sqlite", std::string(4096, 'x'));
    EXPECT_TRUE(run(dir, {"inbox", "list"})
                    .err.starts_with("gaugepoint: " + (dir / "group" / "quota-notify-inbox.sqlite").string() +
                                     ": set journal mode: file is not a database; "));
}

}  // namespace
}  // namespace gaugepoint
