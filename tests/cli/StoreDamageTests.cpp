// A store that cannot be read must never look empty: every reading command fails with one line
// naming the file, and leaves the file as it found it.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>

#include "CommandRunner.hpp"

namespace gaugepoint {
namespace {

using testing::CommandResult;
using testing::ScratchDirectory;

constexpr const char* kSnapshot =
    R"({"version":1,"generatedAt":"2026-11-21T09:00:00Z","source":{"sourceID":"mac-studio","sourceName":"Studio",)"
    R"("hostName":"studio.local","platformLabel":"macOS"},)"
    R"("providers":[{"id":"claude","displayName":"Claude","quotaStrategy":"multiWindow","windows":[{"id":"primary",)"
    R"("label":"Session","usedPercent":42,"windowMinutes":300,"importance":0,"semantic":"rollingSession"}]}]})";

std::vector<std::string> withStores(const ScratchDirectory& dir, std::vector<std::string> args) {
    args.insert(args.end(), {"--app-group-dir", (dir / "group").string(), "--now", "2026-11-21T09:30:00Z"});
    ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    return args;
}

CommandResult run(const ScratchDirectory& dir, std::vector<std::string> args, const std::string& input = {}) {
    return testing::gaugepoint(withStores(dir, std::move(args)), input);
}

struct Reader {
    const char* file;
    std::vector<std::string> command;
};

const std::vector<Reader> kReaders = {
    {"quota-source-snapshots.sqlite", {"sources", "list"}},
    {"quota-source-snapshots.sqlite", {"widget"}},
    {"quota-token-ledger.sqlite", {"ledger", "summary"}},
    {"quota-history.sqlite", {"history", "list"}},
    {"quota-session-catalog.sqlite", {"sessions", "list"}},
    {"quota-notify-inbox.sqlite", {"inbox", "list"}},
    {"quota-session-file-registry.sqlite", {"report", "daily", "--no-scan"}},
};

void expectNamedOnOneLine(const CommandResult& result, const std::filesystem::path& file, const std::string& what) {
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_NE(result.err.find(file.string()), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(what), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
}

TEST(DamagedStores, EveryReaderFailsNamingTheFileAndLeavesItAlone) {
    for (const auto& reader : kReaders) {
        SCOPED_TRACE(reader.file);
        ScratchDirectory dir;
        std::filesystem::create_directories(dir / "group");
        const auto file = dir / "group" / reader.file;
        const std::string garbage(4096, 'x');
        testing::writeFile(file, garbage);
        expectNamedOnOneLine(run(dir, reader.command), file, "damaged or not a gaugepoint store");
        EXPECT_EQ(testing::readFile(file), garbage);
    }
}

TEST(DamagedStores, AForeignDatabaseGetsNoTablesOfOurs) {
    for (const auto& reader : kReaders) {
        SCOPED_TRACE(reader.file);
        ScratchDirectory dir;
        std::filesystem::create_directories(dir / "group");
        const auto file = dir / "group" / reader.file;
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE accounts (name TEXT)", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
        const std::string before = testing::readFile(file);
        expectNamedOnOneLine(run(dir, reader.command), file, "another program's tables (accounts)");
        EXPECT_EQ(testing::readFile(file), before);
    }
}

// Root passes every permission check, so the reader runs as `nobody`.
TEST(ReadOnlyStores, ReadWithoutWriteAccessAndChangeNothing) {
    if (::geteuid() != 0 || ::access("/usr/bin/setpriv", X_OK) != 0) {
        GTEST_SKIP() << "needs root and setpriv to run a command as a user without write access";
    }
    ScratchDirectory dir;
    ASSERT_EQ(run(dir, {"history", "append", "--snapshot", "-"}, kSnapshot).exitCode, 0);
    for (const auto& reader : kReaders) ASSERT_LE(run(dir, reader.command).exitCode, 1);
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
    std::filesystem::permissions(dir / "group", std::filesystem::perms(0755));
    std::vector<std::pair<std::filesystem::path, std::string>> before;
    for (const auto& entry : std::filesystem::directory_iterator(dir / "group")) {
        std::filesystem::permissions(entry.path(), std::filesystem::perms(0644));
        before.emplace_back(entry.path(), testing::readFile(entry.path()));
    }
    const auto asNobody = [&](std::vector<std::string> args) {
        args = withStores(dir, std::move(args));
        args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", GAUGEPOINT_BINARY});
        return testing::runCommand("/usr/bin/setpriv", args);
    };
    const auto history = asNobody({"history", "list"});
    EXPECT_EQ(history.exitCode, 0) << history.err;
    EXPECT_NE(history.out.find("mac-studio"), std::string::npos);
    for (const auto& reader : kReaders) {
        if (reader.command[0] == "widget") continue;  // no sibling snapshot: fails for that reason
        const auto result = asNobody(reader.command);
        EXPECT_EQ(result.exitCode, 0) << reader.file << ": " << result.err;
    }
    const auto write = asNobody({"history", "clear"});
    EXPECT_EQ(write.exitCode, 1);
    EXPECT_NE(write.err.find("quota-history.sqlite"), std::string::npos) << write.err;
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir / "group")) {
        (void)entry;
        ++files;
    }
    EXPECT_EQ(files, before.size());
    for (const auto& [path, bytes] : before) EXPECT_EQ(testing::readFile(path), bytes) << path;
}

}  // namespace
}  // namespace gaugepoint
